// OAKStoreWatcher: one process-wide inotify thread that tells loaded stores when files in their packages
// change (see OAKStore.h for how stores use it in place of file presenting and coordination).
//
// A store registers itself and the folders it wants watched (its package, the package's "devices" folder,
// the foreign device folders); the watcher keeps one inotify watch per folder however many stores share it,
// reads events on its own thread, gathers them per store for each read, and hands each store the list of
// paths that changed. Handlers run on the watcher thread without the watcher's lock held and must only
// schedule work (a store calls syncSoon); they never read logs.
#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class OAKStoreWatcher {
public:
    using Handler = std::function<void(const QStringList& changedPaths)>;
    using Token = unsigned long long;

    static OAKStoreWatcher& shared();

    // Registers a handler; returns 0 when inotify is not available.
    Token registerHandler(Handler handler);
    // Replaces the folders watched for `token`. Folders that cannot be watched are logged and skipped.
    void setWatchedFolders(Token token, const QStringList& folders);
    void unregisterHandler(Token token);

private:
    OAKStoreWatcher();
    void run();
    struct Private;
    std::unique_ptr<Private> d;
};
