// The process-wide registry of folder observers: objects ask to have one of their methods called when
// something changes at or below a path.
//
// Each registration makes one NBFileObserver (one stream) for the path; several paths per observer, and the
// same path twice, are allowed. Observers are held weakly: registering never keeps an object alive, and an
// object destroyed without removing itself is never called again (its streams stop when the center next
// looks at its entries, or at their next event, whichever comes first).
//
// Methods are called on the file observers' delivery thread and must hand longer work to their own queues.
// The map from observers to their file observers is touched only on the center's serial dispatch queue
// ("NBFileSystemEventCenter"): additions and removals by path are asynchronous, whole-observer removals and
// counts synchronous (so a count taken after an addition includes it).
#pragma once

#include "dispatch/OAKDispatchQueue.h"
#include "fileobserver/NBEventResponse.h"
#include "fileobserver/NBFileObserver.h"

#include <QString>

#include <memory>
#include <unordered_map>
#include <vector>

class NBFileSystemEventCenter {
public:
    static NBFileSystemEventCenter& defaultCenter();

    NBFileSystemEventCenter();
    ~NBFileSystemEventCenter();
    NBFileSystemEventCenter(const NBFileSystemEventCenter&) = delete;
    NBFileSystemEventCenter& operator=(const NBFileSystemEventCenter&) = delete;

    // Calls `(observer.*selector)(event)` for changes at or below `path`. Does nothing unless all three are
    // given. The stream starts before this returns.
    template <typename Observer>
    void addObserver(const std::shared_ptr<Observer>& observer,
                     void (Observer::*selector)(const NBFileSystemEvent&), const QString& path) {
        if (!observer || !selector || path.isEmpty())
            return;
        addObserverWithResponse(static_cast<const void*>(observer.get()), std::weak_ptr<void>(observer),
                                NBEventResponse::eventResponseWithTarget(observer, selector), path);
    }

    // Observers are identified by address, so an object can remove itself with `this`, even from its
    // destructor. Pass the same pointer that was registered (not a pointer to another base).
    void removeObserver(const void* observer);
    void removeObserver(const void* observer, const QString& path);
    template <typename Observer> void removeObserver(const std::shared_ptr<Observer>& observer) {
        removeObserver(static_cast<const void*>(observer.get()));
    }
    template <typename Observer>
    void removeObserver(const std::shared_ptr<Observer>& observer, const QString& path) {
        removeObserver(static_cast<const void*>(observer.get()), path);
    }

    // The number of file observers (streams) over all live observers, and the number of live observers.
    std::size_t fileObserverCount();
    std::size_t observerCount();
    // Forgets every registration (the file observers are released and their streams stop).
    void resetMapTable();

private:
    struct Registration {
        std::weak_ptr<void> observer;
        std::vector<std::shared_ptr<NBFileObserver>> fileObservers;
    };
    using Map = std::unordered_map<const void*, Registration>;

    void addObserverWithResponse(const void* key, std::weak_ptr<void> observer,
                                 std::shared_ptr<NBEventResponse> response, const QString& path);
    // Drops the registrations of observers that no longer exist. Runs on the serial queue.
    void removeDestroyedObservers();

    Map fileObserverSetsByObservers_;
    const std::shared_ptr<OAKDispatchQueue> serialQueue_;
};
