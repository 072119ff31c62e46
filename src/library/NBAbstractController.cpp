// The one-shot life cycle and default service behaviour shared by every library controller.
#include "library/NBAbstractController.h"

#include "dispatch/OAKDispatchQueue.h"
#include "foundation/NBLogging.h"
#include "library/NBLibraryLogging.h"

Q_LOGGING_CATEGORY(lcLibrary, "quillon.library")

NBAbstractController::NBAbstractController() {
    nbRaiseAssertion(lcLibrary(),
                     QStringLiteral("Instances of NBAbstractController subclasses should be created "
                                    "using the class method `+controllerWithLibraryManager:`"));
}

NBAbstractController::NBAbstractController(ConstructionToken,
                                           const std::shared_ptr<NBLibraryManager>& manager)
    : libraryManager_(manager) {}

NBAbstractController::~NBAbstractController() = default;

void NBAbstractController::raiseAbstractClassAssertion() {
    nbRaiseAssertion(
        lcLibrary(),
        QStringLiteral("NBAbstractController is an abstract class: instances should be created using "
                       "the class method `+controllerWithLibraryManager:` on one of the subclasses"));
}

std::optional<NBError> NBAbstractController::setUpAndReturnError() {
    std::lock_guard lock(lifeCycleMutex_);
    if (!didRunSetUp_) {
        NBError error;
        if (!setUpWithError(&error))
            setUpError_ = error;
        didRunSetUp_ = true;
    }
    return setUpError_;
}

std::optional<NBError> NBAbstractController::tearDownAndReturnError() {
    std::lock_guard lock(lifeCycleMutex_);
    if (didRunSetUp_ && !didTearDown_) {
        NBError error;
        if (!tearDownWithError(&error))
            tearDownError_ = error;
    }
    // Also when set-up never ran: such a controller must never be torn down later.
    didTearDown_ = true;
    return tearDownError_;
}

bool NBAbstractController::didRunSetUp() const {
    std::lock_guard lock(lifeCycleMutex_);
    return didRunSetUp_;
}

bool NBAbstractController::didTearDown() const {
    std::lock_guard lock(lifeCycleMutex_);
    return didTearDown_;
}

std::optional<NBError> NBAbstractController::setUpError() const {
    std::lock_guard lock(lifeCycleMutex_);
    return setUpError_;
}

std::optional<NBError> NBAbstractController::tearDownError() const {
    std::lock_guard lock(lifeCycleMutex_);
    return tearDownError_;
}

bool NBAbstractController::setUpWithError(NBError*) {
    return true;
}

bool NBAbstractController::tearDownWithError(NBError*) {
    return true;
}

void NBAbstractController::processChangeSinceTimestamp(NBTimestamp, const std::shared_ptr<NBDocument>&,
                                                       NBErrorHandler completionHandler) {
    if (completionHandler)
        completionHandler(std::nullopt);
}

void NBAbstractController::processDeletionOfDocumentWithUUID(const QString&,
                                                             NBErrorHandler completionHandler) {
    if (completionHandler)
        completionHandler(std::nullopt);
}

bool NBAbstractController::checkQueue(const std::shared_ptr<OAKDispatchQueue>& queue, const char* queueName,
                                      const char* method) const {
    if (queue && queue->isInCurrentQueueStack())
        return true;
    qCWarning(lcLibrary).noquote() << nbFormat("%@:%@ should only be called from within the %@ queue",
                                               className(), QString::fromUtf8(method),
                                               QString::fromUtf8(queueName));
    return false;
}
