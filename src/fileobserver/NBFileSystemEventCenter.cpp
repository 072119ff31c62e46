// The registry of folder observers and their file observers.
#include "fileobserver/NBFileSystemEventCenter.h"

NBFileSystemEventCenter& NBFileSystemEventCenter::defaultCenter() {
    // Never destroyed: observers may remove themselves from static destructors at exit.
    static NBFileSystemEventCenter* center = new NBFileSystemEventCenter();
    return *center;
}

NBFileSystemEventCenter::NBFileSystemEventCenter()
    : serialQueue_(OAKDispatchQueue::dispatchQueueWithLabel(
          OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
              QStringLiteral("NBFileSystemEventCenter")))) {}

NBFileSystemEventCenter::~NBFileSystemEventCenter() {
    // Blocks queued before this one refer to the center: they run first, and the map goes with them.
    serialQueue_->dispatchSynchronously([this] { fileObserverSetsByObservers_.clear(); });
}

void NBFileSystemEventCenter::addObserverWithResponse(const void* key, std::weak_ptr<void> observer,
                                                      std::shared_ptr<NBEventResponse> response,
                                                      const QString& path) {
    std::shared_ptr<NBFileObserver> fileObserver =
        NBFileObserver::fileObserverWithPath(path, std::move(response));
    serialQueue_->dispatchAsynchronously([this, key, observer = std::move(observer), fileObserver] {
        removeDestroyedObservers();
        Registration& registration = fileObserverSetsByObservers_[key];
        registration.observer = observer;
        registration.fileObservers.push_back(fileObserver);
    });
}

void NBFileSystemEventCenter::removeObserver(const void* observer) {
    if (!observer)
        return;
    serialQueue_->dispatchSynchronously([this, observer] { fileObserverSetsByObservers_.erase(observer); });
}

void NBFileSystemEventCenter::removeObserver(const void* observer, const QString& path) {
    if (!observer)
        return;
    serialQueue_->dispatchAsynchronously([this, observer, path] {
        auto found = fileObserverSetsByObservers_.find(observer);
        if (found == fileObserverSetsByObservers_.end())
            return;
        auto& fileObservers = found->second.fileObservers;
        std::erase_if(fileObservers,
                      [&](const auto& fileObserver) { return fileObserver->observedPath() == path; });
        if (fileObservers.empty())
            fileObserverSetsByObservers_.erase(found);
    });
}

std::size_t NBFileSystemEventCenter::fileObserverCount() {
    std::size_t count = 0;
    serialQueue_->dispatchSynchronously([&] {
        removeDestroyedObservers();
        for (const auto& [key, registration] : fileObserverSetsByObservers_)
            count += registration.fileObservers.size();
    });
    return count;
}

std::size_t NBFileSystemEventCenter::observerCount() {
    std::size_t count = 0;
    serialQueue_->dispatchSynchronously([&] {
        removeDestroyedObservers();
        count = fileObserverSetsByObservers_.size();
    });
    return count;
}

void NBFileSystemEventCenter::resetMapTable() {
    serialQueue_->dispatchSynchronously([this] { Map().swap(fileObserverSetsByObservers_); });
}

void NBFileSystemEventCenter::removeDestroyedObservers() {
    // Keys are held weakly: an observer that no longer exists has no entry. The address may meanwhile
    // belong to a new object, whose own registration then replaces the stale one.
    std::erase_if(fileObserverSetsByObservers_,
                  [](const auto& entry) { return entry.second.observer.expired(); });
}
