// OAKStoreWatcher: the stores' package watching, as a client of the file observer (see OAKStoreWatcher.h).
#include "store/OAKStoreWatcher.h"

#include "fileobserver/NBFileObserver.h"

#include <map>
#include <mutex>
#include <set>
#include <vector>

struct OAKStoreWatcher::Private {
    struct Folder {
        std::shared_ptr<NBFileObserver> observer;
        std::set<Token> tokens;
    };

    std::mutex mutex;
    Token nextToken = 1;
    std::map<Token, std::shared_ptr<const Handler>> handlers;
    std::map<Token, std::set<QString>> foldersByToken;
    std::map<QString, Folder> folders;

    // On the delivery thread: hands the folder to every handler that watches it, outside the lock.
    void report(const QString& folder) {
        std::vector<std::shared_ptr<const Handler>> calls;
        {
            std::lock_guard lock(mutex);
            auto found = folders.find(folder);
            if (found == folders.end())
                return;
            for (Token token : found->second.tokens) {
                if (auto handler = handlers.find(token); handler != handlers.end())
                    calls.push_back(handler->second);
            }
        }
        const QStringList paths{folder};
        for (const auto& handler : calls)
            (*handler)(paths);
    }

    // With the lock held: takes `token` off `folder`, and hands back the folder's observer to release
    // (outside the lock) when no token is left.
    std::shared_ptr<NBFileObserver> removeTokenLocked(Token token, const QString& folder) {
        auto found = folders.find(folder);
        if (found == folders.end())
            return nullptr;
        found->second.tokens.erase(token);
        if (!found->second.tokens.empty())
            return nullptr;
        std::shared_ptr<NBFileObserver> observer = std::move(found->second.observer);
        folders.erase(found);
        return observer;
    }
};

OAKStoreWatcher& OAKStoreWatcher::shared() {
    // Created on first use and kept for the life of the process: reports may arrive until it ends.
    static OAKStoreWatcher* watcher = new OAKStoreWatcher();
    return *watcher;
}

OAKStoreWatcher::OAKStoreWatcher() : d(std::make_shared<Private>()) {}

OAKStoreWatcher::Token OAKStoreWatcher::registerHandler(Handler handler) {
    std::lock_guard lock(d->mutex);
    const Token token = d->nextToken++;
    d->handlers.emplace(token, std::make_shared<const Handler>(std::move(handler)));
    return token;
}

void OAKStoreWatcher::setWatchedFolders(Token token, const QStringList& folders) {
    const std::set<QString> wanted(folders.begin(), folders.end());
    std::vector<QString> toObserve;
    std::vector<std::shared_ptr<NBFileObserver>> released;
    {
        std::lock_guard lock(d->mutex);
        if (!d->handlers.contains(token))
            return;
        std::set<QString>& current = d->foldersByToken[token];
        for (auto folder = current.begin(); folder != current.end();) {
            if (wanted.contains(*folder)) {
                ++folder;
                continue;
            }
            if (auto observer = d->removeTokenLocked(token, *folder))
                released.push_back(std::move(observer));
            folder = current.erase(folder);
        }
        for (const QString& folder : wanted) {
            if (current.contains(folder))
                continue;
            if (auto found = d->folders.find(folder); found != d->folders.end()) {
                found->second.tokens.insert(token);
                current.insert(folder);
            } else {
                toObserve.push_back(folder);
            }
        }
    }
    // New observers start outside the lock: a report for another folder never waits for them. Only the
    // folder itself and its direct entries: a device's log lives directly in its folder.
    NBFileEventStreamOptions options;
    options.latency = kOAKStoreWatcherLatency;
    options.recursive = false;
    for (const QString& folder : toObserve) {
        auto response = NBEventResponse::eventResponseWithTarget(
            d, [folder](Private& watcher, const NBFileSystemEvent&) { watcher.report(folder); });
        std::shared_ptr<NBFileObserver> observer =
            NBFileObserver::fileObserverWithPath(folder, response, options);
        std::lock_guard lock(d->mutex);
        // Unregistered meanwhile: the observer is not wanted any more.
        if (!d->handlers.contains(token)) {
            released.push_back(std::move(observer));
            continue;
        }
        auto [found, inserted] = d->folders.try_emplace(folder);
        if (inserted)
            found->second.observer = std::move(observer);
        else
            released.push_back(std::move(observer)); // another store started one meanwhile
        found->second.tokens.insert(token);
        d->foldersByToken[token].insert(folder);
    }
}

void OAKStoreWatcher::unregisterHandler(Token token) {
    std::vector<std::shared_ptr<NBFileObserver>> released;
    {
        std::lock_guard lock(d->mutex);
        if (auto found = d->foldersByToken.find(token); found != d->foldersByToken.end()) {
            for (const QString& folder : found->second) {
                if (auto observer = d->removeTokenLocked(token, folder))
                    released.push_back(std::move(observer));
            }
            d->foldersByToken.erase(found);
        }
        d->handlers.erase(token);
    }
    // The observers stop their streams here, outside the lock.
}
