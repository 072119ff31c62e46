// NBAbstractController: the common base of every sub-controller of a library, and of buckets.
//
// A controller is made only through controllerWithLibraryManager<Kind>(manager), keeps a weak reference to
// its library manager, and goes through a one-shot life cycle: set up once (setUpAndReturnError), awakened
// once every sibling is set up (awakeFromLibrarySetUp), drained (waitUntilFinished) and torn down once
// (tearDownAndReturnError). Set-up and tear-down hold a lock on the controller, so concurrent callers see
// one run and the same result; a controller that was never set up is marked torn down and never runs its
// tear-down later.
//
// Services. A controller whose serviceName() is not empty is a service: the revision controller tells it,
// document by document, what changed since a timestamp (processChangeSinceTimestamp, with an open document)
// and which documents were deleted (processDeletionOfDocumentWithUUID). Both call their completion handler
// exactly once, with no error or an error, on any queue. The defaults below succeed at once and do nothing;
// the revision controller keeps its records per service name, so a name must stay the same for one kind of
// derived data.
#pragma once

#include "foundation/NBError.h"
#include "foundation/NBTimestamp.h"

#include <QString>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>

class NBDocument;
class OAKDispatchQueue;
class NBLibraryManager;

using NBErrorHandler = std::function<void(const std::optional<NBError>& error)>;

class NBAbstractController : public std::enable_shared_from_this<NBAbstractController> {
protected:
    // Only controllerWithLibraryManager() can make one: subclass constructors take this token.
    struct ConstructionToken {
        explicit ConstructionToken() = default;
    };

public:
    // The only way to make a controller. Asked for NBAbstractController itself it raises the assertion
    // "NBAbstractController is an abstract class: ..." and returns nothing.
    template <typename Kind>
    static std::shared_ptr<Kind>
    controllerWithLibraryManager(const std::shared_ptr<NBLibraryManager>& manager) {
        static_assert(std::is_base_of_v<NBAbstractController, Kind>);
        if constexpr (std::is_same_v<Kind, NBAbstractController>) {
            raiseAbstractClassAssertion();
            return nullptr;
        } else {
            return std::make_shared<Kind>(ConstructionToken(), manager);
        }
    }

    // The plain initializer is refused with the assertion "Instances of NBAbstractController subclasses
    // should be created using the class method `+controllerWithLibraryManager:`".
    NBAbstractController();
    NBAbstractController(ConstructionToken token, const std::shared_ptr<NBLibraryManager>& manager);
    virtual ~NBAbstractController();
    NBAbstractController(const NBAbstractController&) = delete;
    NBAbstractController& operator=(const NBAbstractController&) = delete;

    // The class name, for messages and error domains.
    virtual QString className() const { return QStringLiteral("NBAbstractController"); }
    std::shared_ptr<NBLibraryManager> libraryManager() const { return libraryManager_.lock(); }

    // One-shot life cycle (see above). Each returns the stored error of its first run.
    std::optional<NBError> setUpAndReturnError();
    std::optional<NBError> tearDownAndReturnError();
    bool didRunSetUp() const;
    bool didTearDown() const;
    std::optional<NBError> setUpError() const;
    std::optional<NBError> tearDownError() const;

    // Overridden by subclasses, in this order of use.
    virtual bool setUpWithError(NBError* outError);
    virtual bool tearDownWithError(NBError* outError);
    virtual void awakeFromLibrarySetUp() {}
    virtual void waitUntilFinished() {}
    virtual QString serviceName() const { return QString(); }
    virtual void processChangeSinceTimestamp(NBTimestamp timestamp,
                                             const std::shared_ptr<NBDocument>& document,
                                             NBErrorHandler completionHandler);
    virtual void processDeletionOfDocumentWithUUID(const QString& documentUUID,
                                                   NBErrorHandler completionHandler);

protected:
    // True when the caller runs inside `queue`; otherwise logs "<class>:<method> should only be called from
    // within the <queue name> queue" and returns false.
    bool checkQueue(const std::shared_ptr<OAKDispatchQueue>& queue, const char* queueName,
                    const char* method) const;

private:
    static void raiseAbstractClassAssertion();

    std::weak_ptr<NBLibraryManager> libraryManager_;
    mutable std::recursive_mutex lifeCycleMutex_;
    bool didRunSetUp_ = false;
    bool didTearDown_ = false;
    std::optional<NBError> setUpError_;
    std::optional<NBError> tearDownError_;
};
