// OAKStoreWatcher: tells loaded stores when another device's files in their packages change (see OAKStore.h
// for how stores use it).
//
// A store registers a handler and the folders it wants watched (its package, the package's "devices" folder,
// the foreign device folders). The watcher observes each folder through the file observer (one
// NBFileObserver per folder, however many stores share it), without recursion and with a short latency
// (kOAKStoreWatcherLatency): the store's own sync timers do the coalescing. Reports arrive on the file
// observers' delivery thread; a handler gets the folders that changed and must only schedule work (a store
// calls syncSoon), never read logs.
//
// A watched folder stays watched for as long as a store asks for it, whatever happens to it on disk: a
// folder that is deleted and recreated, moved away and back or replaced by another, that does not exist yet,
// or that could not be watched (the watch limit) is polled until it can be watched again, and its return
// is reported. So the folders a store last asked for are the folders really watched (or polled until they
// can be), and the store compares what it wants with that list alone.
#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

// Seconds the watcher gathers changes before it reports them: enough to make one report of the burst of
// writes that one log commit makes, short against the store's sync delay.
inline constexpr double kOAKStoreWatcherLatency = 0.1;

class OAKStoreWatcher {
public:
    using Handler = std::function<void(const QStringList& changedPaths)>;
    using Token = unsigned long long;

    static OAKStoreWatcher& shared();

    // Registers a handler and returns its token (never 0).
    Token registerHandler(Handler handler);
    // Replaces the folders watched for `token`. A folder that cannot be watched now is polled until it can.
    void setWatchedFolders(Token token, const QStringList& folders);
    // Stops the token's reports. A report that was already on its way may still reach the handler after this
    // returns: a handler checks its own state before it acts (the store does, under its report lock).
    void unregisterHandler(Token token);

private:
    OAKStoreWatcher();
    struct Private;
    std::shared_ptr<Private> d;
};
