// The inotify engine behind file observers: one shared inotify instance, one delivery thread, per-stream
// watches and coalescing windows; walks of new folders on a queue of their own; and the polling fallback on
// another queue, which moves a stream back to inotify when it can.
#include "fileobserver/NBFileEventStream.h"

#include "fileobserver/NBFileObserver.h"

#include "dispatch/OAKDispatchQueue.h"
#include "foundation/NBLogging.h"

#include <QDir>
#include <QFile>
#include <QHash>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcFileObserver, "quillon.fileobserver")

namespace {

using Clock = std::chrono::steady_clock;

// What every watched folder reports. A write is reported by IN_MODIFY when it happens; closing a file is not
// a change (IN_CLOSE_WRITE would wake an observer whenever anyone closed a file opened for writing, such as a
// database opened read-write only to be read). IN_DONT_FOLLOW and IN_ONLYDIR keep the recursion from
// following symbolic links (which could loop) or racing with a folder replaced by a file; IN_EXCL_UNLINK
// stops reporting writes to files that were deleted while still open.
constexpr std::uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM |
                                      IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK |
                                      IN_DONT_FOLLOW | IN_ONLYDIR;
// The observed path itself may be a symbolic link to a folder, or a file.
constexpr std::uint32_t kRootMask = kFolderMask & ~std::uint32_t(IN_DONT_FOLLOW | IN_ONLYDIR);

std::atomic<double> latencySeconds{kNBFileObserverLatency};
std::atomic<double> pollingIntervalSeconds{kNBFileObserverPollingInterval};
std::atomic<double> watchRetryIntervalSeconds{kNBFileObserverWatchRetryInterval};
std::atomic<std::size_t> watchLimitCount{0};

std::atomic<bool>& forcedPolling() {
    static std::atomic<bool> forced{[] {
        const char* value = std::getenv(kNBFileObserverPollingEnvironmentVariable);
        return value && *value && std::strcmp(value, "0") != 0;
    }()};
    return forced;
}

struct TestHooks {
    std::mutex mutex;
    NBFileEventStream::PollHook poll;
    NBFileEventStream::WalkHook walk;
};

TestHooks& testHooks() {
    // Never destroyed: the queues may still look at it while the process exits.
    static TestHooks* shared = new TestHooks();
    return *shared;
}

void runPollHook(const QString& path, bool resumingWatch) {
    NBFileEventStream::PollHook hook;
    {
        std::lock_guard lock(testHooks().mutex);
        hook = testHooks().poll;
    }
    if (hook)
        hook(path, resumingWatch);
}

void runWalkHook(const QString& folder) {
    NBFileEventStream::WalkHook hook;
    {
        std::lock_guard lock(testHooks().mutex);
        hook = testHooks().walk;
    }
    if (hook)
        hook(folder);
}

Clock::duration durationForSeconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

QString joinPath(const QString& folder, const QString& name) {
    if (name.isEmpty())
        return folder;
    if (folder.endsWith(QLatin1Char('/')))
        return folder + name;
    return folder + QLatin1Char('/') + name;
}

std::size_t folderCountOfSnapshot(const NBFileSnapshot& snapshot) {
    return std::size_t(std::count_if(snapshot.begin(), snapshot.end(),
                                     [](const auto& entry) { return entry.second.isDirectory; }));
}

// Watching failed because the kernel ran out of watches (or memory for them): worth trying again once the
// tree is smaller.
bool isResourceError(int error) {
    return error == ENOSPC || error == ENOMEM;
}

// Watching failed because the observed path is not there: worth trying again once it is.
bool isMissingPathError(int error) {
    return error == ENOENT || error == ENOTDIR;
}

struct PendingEvent {
    QString path;
    std::uint32_t flags = 0;
    std::uint64_t identifier = 0;
};

} // namespace

// One stream's state, shared by its handle and the engine. Fields are guarded by the engine's mutex, except
// `snapshot`, which is guarded by `pollMutex`. Whoever walks the tree to poll it, to take a polling baseline
// or to watch it again holds `pollMutex` throughout, so those walks never overlap for one stream; the
// engine's mutex is only ever taken after `pollMutex`, never before.
struct NBFileEventStreamState {
    std::uint64_t identifier = 0;
    QString rootPath;
    NBFileEventStream::Callback callback;
    NBFileEventStreamOptions options;
    std::atomic<bool> running{true};
    std::atomic<bool> polling{false};
    // Set while a polling stream goes back to watching: its watches are being added and the tree is then
    // compared with the last poll. Inotify events are handled meanwhile, but a flush is not served until the
    // comparison has recorded what changed before the watches existed.
    bool resuming = false;
    // Changes at every switch between watching and polling, so that a walk that released the engine's
    // mutex can tell that the stream changed course meanwhile.
    std::uint64_t generation = 0;
    // Walks queued for this stream and not finished yet: a flush waits for them, since they report what
    // new folders already held.
    unsigned walksPending = 0;
    // Set when the stream fell back to polling while running: the next poll takes a new baseline instead of
    // comparing, and reports a rescan of the root, since changes between the fallback and the baseline
    // were seen by neither inotify nor polling.
    bool needsBaseline = false;
    // Watched folders of this stream by path, and the descriptor of each.
    std::map<QString, int> watchByPath;
    std::vector<PendingEvent> pending;
    QHash<QString, qsizetype> pendingIndexByPath;
    std::optional<Clock::time_point> deadline;
    // Flush tickets: requested by callers, ready once the stream's changes up to the request are recorded
    // (read from inotify, or polled), served once the delivery thread has handed them over.
    std::uint64_t flushRequested = 0;
    std::uint64_t flushReady = 0;
    std::uint64_t flushServed = 0;
    // When polling: the next poll, the next attempt to watch again, and what makes an earlier attempt worth
    // it (fewer folders than when watching failed for want of watches, or the missing root appearing).
    Clock::time_point nextPoll;
    Clock::time_point nextRetry;
    std::size_t retryBelowFolderCount = 0;
    bool retryWhenRootExists = false;
    int fallbackError = 0;

    std::mutex pollMutex;
    NBFileSnapshot snapshot;
};

namespace {

using StreamPointer = std::shared_ptr<NBFileEventStreamState>;

class Engine {
public:
    static Engine& shared() {
        // Created on first use and never destroyed: the delivery thread runs for the life of the process,
        // so the engine must outlive every static destructor that might still tear a stream down.
        static Engine* engine = new Engine();
        return *engine;
    }

    void addStream(const StreamPointer& stream);
    void removeStream(const StreamPointer& stream);
    void flush(const StreamPointer& stream, bool wait);
    std::size_t watchDescriptorCount() {
        std::lock_guard lock(mutex_);
        return subscribersByWatch_.size();
    }
    void setPausesReading(bool pauses);
    void wake();
    void pollingIntervalChanged() {
        std::lock_guard lock(mutex_);
        schedulePollLocked();
    }

private:
    Engine();
    void run();

    // The helpers below run with mutex_ held. watchTree releases it while it lists a folder when given the
    // caller's lock, and then gives up (ECANCELED) if the stream stopped or changed course meanwhile.
    int watchTree(NBFileEventStreamState& stream, const QString& folder, bool reportContents, bool isRoot,
                  std::unique_lock<std::mutex>* lock = nullptr, std::uint64_t generation = 0);
    int addWatch(const QByteArray& path, std::uint32_t mask);
    void unwatchSubtree(NBFileEventStreamState& stream, const QString& folder);
    void unwatchAll(NBFileEventStreamState& stream);
    void unsubscribe(int watch, std::uint64_t streamIdentifier);
    void record(NBFileEventStreamState& stream, const QString& path, std::uint32_t flags);
    void switchToPolling(NBFileEventStreamState& stream, bool logError, int error);
    void setRetryTriggers(NBFileEventStreamState& stream, int error, std::size_t folderCount);
    double latencyOf(const NBFileEventStreamState& stream) const;
    // True when a watching stream has recorded every change up to the last read of the kernel's events.
    static bool isCaughtUp(const NBFileEventStreamState& stream) {
        return !stream.polling && !stream.resuming && stream.walksPending == 0;
    }
    // Sets the polling queue's timer to the next poll due among the polling streams.
    void schedulePollLocked();
    // Hands a walk of `folder` to the walking queue.
    void queueWalkLocked(const StreamPointer& stream, const QString& folder, bool reportContents);
    void readInotifyEvents();
    void handleEvent(const StreamPointer& stream, int watch, const QString& folder, std::uint32_t mask,
                     const QString& name);
    void handleOverflow();
    void recordDifferences(NBFileEventStreamState& stream, const NBFileSnapshot& snapshot);
    std::vector<PendingEvent> takeBatch(NBFileEventStreamState& stream);

    // These take the stream's pollMutex first and the engine's mutex only briefly. pollStream may try to
    // watch the tree again when called on the polling queue.
    void pollStream(const StreamPointer& stream, bool onPollingQueue);
    void resumeWatching(const StreamPointer& stream, std::uint64_t ticket);
    // The polling queue's timer step: polls every stream that is due.
    void pollDueStreams();
    // The walking queue's step for one folder.
    void walk(const StreamPointer& stream, const QString& folder, bool reportContents,
              std::uint64_t generation);

    static void deliver(const StreamPointer& stream, const std::vector<PendingEvent>& batch);

    std::mutex mutex_;
    std::condition_variable flushCondition_;
    const std::shared_ptr<OAKDispatchQueue> pollingQueue_;
    const std::shared_ptr<OAKDispatchQueue> walkingQueue_;
    bool readingPaused_ = false;
    int inotifyDescriptor_ = -1;
    int wakeDescriptor_ = -1;
    std::thread::id threadIdentifier_;
    std::unordered_map<int, std::map<std::uint64_t, QString>> subscribersByWatch_;
    std::map<std::uint64_t, StreamPointer> streams_;
    std::uint64_t nextEventIdentifier_ = 1;
};

Engine::Engine()
    : pollingQueue_(OAKDispatchQueue::dispatchQueueWithLabel(
          OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
              QStringLiteral("NBFileObserver.polling")))),
      walkingQueue_(OAKDispatchQueue::dispatchQueueWithLabel(
          OAKDispatchQueue::labelByPrependingBundleIdentifierToString(
              QStringLiteral("NBFileObserver.walks")))) {
    inotifyDescriptor_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    wakeDescriptor_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::thread thread([this] { run(); });
    threadIdentifier_ = thread.get_id();
    pthread_setname_np(thread.native_handle(), "NBFileObserver");
    thread.detach();
}

void Engine::wake() {
    if (wakeDescriptor_ < 0)
        return;
    std::uint64_t one = 1;
    ssize_t written = write(wakeDescriptor_, &one, sizeof one);
    (void)written; // A full counter already means "wake up".
}

void Engine::setPausesReading(bool pauses) {
    {
        // Reading happens with the mutex held, so once this returns no read is under way.
        std::lock_guard lock(mutex_);
        readingPaused_ = pauses;
    }
    wake();
}

void Engine::addStream(const StreamPointer& stream) {
    // Holding the stream's poll mutex keeps the polling queue from polling it before its baseline exists.
    std::lock_guard pollLock(stream->pollMutex);
    std::unique_lock lock(mutex_);
    // The stream is registered before its watches are added, so that no event arriving on a new watch finds
    // its stream missing. The walk lets go of the mutex while it lists folders: a large tree does not hold
    // up delivery to the other streams.
    streams_[stream->identifier] = stream;
    int error = ENOSYS;
    if (!forcedPolling().load() && inotifyDescriptor_ >= 0) {
        std::uint64_t generation = ++stream->generation;
        error = watchTree(*stream, stream->rootPath, false, true, &lock, generation);
        // Done, or the stream fell back meanwhile and its baseline is on the way.
        if (error == 0 || error == ECANCELED)
            return;
        unwatchAll(*stream);
    }
    ++stream->generation;
    stream->polling = true;
    stream->nextPoll = Clock::now() + durationForSeconds(pollingIntervalSeconds.load());
    stream->nextRetry = Clock::now() + durationForSeconds(watchRetryIntervalSeconds.load());
    lock.unlock();
    // A folder that does not exist yet (a device's folder that a synchronisation service has not brought
    // over, say) is an ordinary state: the stream polls for it and watches it once it is there.
    if (isMissingPathError(error))
        qCDebug(lcFileObserver).noquote()
            << nbFormat("Waiting for %@ to exist before watching it", stream->rootPath);
    else
        qCCritical(lcFileObserver).noquote()
            << nbFormat("ERROR: could not start FSEventStream for path %@", stream->rootPath);
    // The baseline is taken before the constructor returns, so only later changes are reported.
    NBFileSnapshot baseline = nbFileSnapshotOfPath(stream->rootPath, stream->options.recursive);
    std::size_t folderCount = folderCountOfSnapshot(baseline);
    lock.lock();
    stream->snapshot = std::move(baseline);
    setRetryTriggers(*stream, error, folderCount);
    schedulePollLocked();
}

void Engine::removeStream(const StreamPointer& stream) {
    std::lock_guard lock(mutex_);
    stream->running = false;
    unwatchAll(*stream);
    stream->pending.clear();
    stream->pendingIndexByPath.clear();
    stream->deadline.reset();
    streams_.erase(stream->identifier);
    flushCondition_.notify_all();
}

int Engine::addWatch(const QByteArray& path, std::uint32_t mask) {
    int watch = inotify_add_watch(inotifyDescriptor_, path.constData(), mask);
    if (watch < 0)
        return -errno;
    // The process's own limit works like the kernel's: a new watch beyond it fails with ENOSPC. A watch the
    // process already holds (another stream's folder) costs nothing more.
    std::size_t limit = watchLimitCount.load();
    if (limit && !subscribersByWatch_.contains(watch) && subscribersByWatch_.size() >= limit) {
        inotify_rm_watch(inotifyDescriptor_, watch);
        return -ENOSPC;
    }
    return watch;
}

int Engine::watchTree(NBFileEventStreamState& stream, const QString& folder, bool reportContents, bool isRoot,
                      std::unique_lock<std::mutex>* lock, std::uint64_t generation) {
    std::vector<std::pair<QString, bool>> folders{{folder, isRoot}};
    while (!folders.empty()) {
        auto [path, root] = folders.back();
        folders.pop_back();
        if (lock && (!stream.running || stream.generation != generation))
            return ECANCELED;
        QByteArray encoded = QFile::encodeName(path);
        int watch = addWatch(encoded, root ? kRootMask : kFolderMask);
        if (watch < 0) {
            // A folder that vanished or became a file during the walk is simply no longer there to watch, and
            // a folder we may not read could not be polled either; anything else (the watch limit, ENOSPC,
            // or a root that cannot be watched) falls back to polling.
            if (!root && (watch == -ENOENT || watch == -ENOTDIR || watch == -EACCES))
                continue;
            return -watch;
        }
        auto& subscribers = subscribersByWatch_[watch];
        auto existing = subscribers.find(stream.identifier);
        if (existing != subscribers.end() && existing->second != path)
            stream.watchByPath.erase(existing->second);
        subscribers[stream.identifier] = path;
        stream.watchByPath[path] = watch;

        // A stream that watches only its root has nothing to walk; folders that appear in a watched tree
        // have nothing to walk below them either.
        if (!stream.options.recursive)
            continue;
        if (lock)
            lock->unlock();
        std::uint32_t contentFlags = 0;
        struct stat status {};
        // An observed file has nothing below it.
        DIR* directory = stat(encoded.constData(), &status) == 0 && S_ISDIR(status.st_mode)
                             ? opendir(encoded.constData())
                             : nullptr;
        while (dirent* entry = directory ? readdir(directory) : nullptr) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            QString name = QFile::decodeName(entry->d_name);
            if (nbIsSynchronisationTemporaryName(name))
                continue;
            bool isDirectory = entry->d_type == DT_DIR;
            if (entry->d_type == DT_UNKNOWN) {
                struct stat entryStatus {};
                QByteArray entryPath = QFile::encodeName(joinPath(path, name));
                isDirectory = lstat(entryPath.constData(), &entryStatus) == 0 && S_ISDIR(entryStatus.st_mode);
            }
            contentFlags |=
                kNBFileSystemEventFlagItemCreated |
                (isDirectory ? kNBFileSystemEventFlagItemIsDirectory : kNBFileSystemEventFlagItemIsFile);
            if (isDirectory)
                folders.emplace_back(joinPath(path, name), false);
        }
        if (directory)
            closedir(directory);
        if (lock)
            lock->lock();
        // A folder created (or moved in) while observing may already hold entries written before its watch
        // existed; report them, since no kernel event will.
        if (reportContents && contentFlags)
            record(stream, path, contentFlags);
    }
    return 0;
}

void Engine::unsubscribe(int watch, std::uint64_t streamIdentifier) {
    auto found = subscribersByWatch_.find(watch);
    if (found == subscribersByWatch_.end())
        return;
    found->second.erase(streamIdentifier);
    if (found->second.empty()) {
        inotify_rm_watch(inotifyDescriptor_, watch);
        subscribersByWatch_.erase(found);
    }
}

void Engine::unwatchSubtree(NBFileEventStreamState& stream, const QString& folder) {
    // Every key starting with `folder` is contiguous in the sorted map; of those, keep the folder itself and
    // its descendants ("a/b" and "a/b/c", not "a/bc").
    auto position = stream.watchByPath.lower_bound(folder);
    while (position != stream.watchByPath.end() && position->first.startsWith(folder)) {
        const QString& path = position->first;
        if (path.size() == folder.size() || path.at(folder.size()) == QLatin1Char('/')) {
            unsubscribe(position->second, stream.identifier);
            position = stream.watchByPath.erase(position);
        } else {
            ++position;
        }
    }
}

void Engine::unwatchAll(NBFileEventStreamState& stream) {
    for (const auto& [path, watch] : stream.watchByPath)
        unsubscribe(watch, stream.identifier);
    stream.watchByPath.clear();
}

void Engine::record(NBFileEventStreamState& stream, const QString& path, std::uint32_t flags) {
    auto found = stream.pendingIndexByPath.constFind(path);
    if (found != stream.pendingIndexByPath.constEnd()) {
        stream.pending[std::size_t(found.value())].flags |= flags;
    } else {
        stream.pendingIndexByPath.insert(path, qsizetype(stream.pending.size()));
        stream.pending.push_back({path, flags, nextEventIdentifier_++});
    }
    if (!stream.deadline)
        stream.deadline = Clock::now() + durationForSeconds(latencyOf(stream));
}

double Engine::latencyOf(const NBFileEventStreamState& stream) const {
    return stream.options.latency >= 0 ? stream.options.latency : latencySeconds.load();
}

void Engine::switchToPolling(NBFileEventStreamState& stream, bool logError, int error) {
    if (logError)
        qCCritical(lcFileObserver).noquote()
            << nbFormat("ERROR: could not start FSEventStream for path %@", stream.rootPath);
    // The watches go at once (the kernel may be short of them); the polling queue takes the baseline.
    unwatchAll(stream);
    ++stream.generation;
    stream.polling = true;
    stream.needsBaseline = true;
    stream.fallbackError = error;
    stream.retryWhenRootExists = isMissingPathError(error);
    stream.retryBelowFolderCount = 0;
    stream.nextPoll = Clock::now();
    stream.nextRetry = Clock::now() + durationForSeconds(watchRetryIntervalSeconds.load());
    schedulePollLocked();
}

void Engine::schedulePollLocked() {
    auto now = Clock::now();
    std::optional<Clock::time_point> nearest;
    for (const auto& [identifier, stream] : streams_) {
        if (!stream->polling)
            continue;
        Clock::time_point at =
            stream->needsBaseline || stream->flushRequested > stream->flushReady ? now : stream->nextPoll;
        if (!nearest || at < *nearest)
            nearest = at;
    }
    if (!nearest)
        return;
    // A coalescing timer: the earliest request wins, so a flush asked for now overtakes the next regular
    // poll. A firing that finds nothing due only sets the timer again.
    double delay = std::max(0.0, std::chrono::duration<double>(*nearest - now).count());
    pollingQueue_->scheduleTimerWithName(QStringLiteral("poll"), delay, OAKTimerBehaviorCoalesce,
                                         [this] { pollDueStreams(); });
}

void Engine::pollDueStreams() {
    // One stream at a time, the one due first (a requested flush or a new baseline is due at once), so that a
    // large polled tree delays only other polled trees, never delivery.
    for (;;) {
        StreamPointer due;
        {
            std::lock_guard lock(mutex_);
            auto now = Clock::now();
            std::optional<Clock::time_point> nearest;
            for (const auto& [identifier, stream] : streams_) {
                if (!stream->polling)
                    continue;
                Clock::time_point at = stream->needsBaseline || stream->flushRequested > stream->flushReady
                                           ? now
                                           : stream->nextPoll;
                if (at <= now && (!nearest || at < *nearest)) {
                    nearest = at;
                    due = stream;
                }
            }
            if (!due) {
                schedulePollLocked();
                return;
            }
        }
        pollStream(due, true);
    }
}

void Engine::queueWalkLocked(const StreamPointer& stream, const QString& folder, bool reportContents) {
    ++stream->walksPending;
    std::uint64_t generation = stream->generation;
    walkingQueue_->dispatchAsynchronously([this, stream, folder, reportContents, generation] {
        walk(stream, folder, reportContents, generation);
    });
}

void Engine::walk(const StreamPointer& stream, const QString& folder, bool reportContents,
                  std::uint64_t generation) {
    runWalkHook(folder);
    {
        std::unique_lock lock(mutex_);
        // A stream that stopped or fell back to polling meanwhile no longer wants the walk; its baseline
        // covers what the walk would have reported.
        if (stream->running && !stream->polling && stream->generation == generation) {
            int error =
                watchTree(*stream, folder, reportContents, folder == stream->rootPath, &lock, generation);
            if (error && error != ECANCELED && stream->running && stream->generation == generation)
                switchToPolling(*stream, true, error);
        }
        --stream->walksPending;
    }
    // A flush that waited for this walk can be served now.
    wake();
}

void Engine::setRetryTriggers(NBFileEventStreamState& stream, int error, std::size_t folderCount) {
    stream.fallbackError = error;
    stream.retryWhenRootExists = isMissingPathError(error);
    stream.retryBelowFolderCount = isResourceError(error) ? folderCount : 0;
}

void Engine::readInotifyEvents() {
    if (inotifyDescriptor_ < 0)
        return;
    alignas(inotify_event) char buffer[64 * 1024];
    while (!readingPaused_) {
        ssize_t length = read(inotifyDescriptor_, buffer, sizeof buffer);
        if (length <= 0)
            return; // EAGAIN: drained
        for (char* position = buffer; position < buffer + length;) {
            inotify_event event;
            std::memcpy(&event, position, sizeof event);
            QString name = event.len ? QFile::decodeName(position + sizeof(inotify_event)) : QString();
            position += sizeof(inotify_event) + event.len;
            if (event.wd == -1 || (event.mask & IN_Q_OVERFLOW)) {
                handleOverflow();
                continue;
            }
            auto found = subscribersByWatch_.find(event.wd);
            if (found == subscribersByWatch_.end())
                continue; // a watch we already removed
            // Handling may change the subscribers (a stream switching to polling), so walk a copy.
            std::map<std::uint64_t, QString> subscribers = found->second;
            for (const auto& [streamIdentifier, folder] : subscribers) {
                auto stream = streams_.find(streamIdentifier);
                if (stream != streams_.end() && !stream->second->polling)
                    handleEvent(stream->second, event.wd, folder, event.mask, name);
            }
        }
    }
}

void Engine::handleEvent(const StreamPointer& streamPointer, int watch, const QString& folder,
                         std::uint32_t mask, const QString& name) {
    NBFileEventStreamState& stream = *streamPointer;
    bool isRoot = folder == stream.rootPath;
    if (mask & IN_IGNORED) {
        // The kernel dropped the watch: its folder was deleted, or its file system unmounted.
        auto found = stream.watchByPath.find(folder);
        if (found != stream.watchByPath.end() && found->second == watch)
            stream.watchByPath.erase(found);
        unsubscribe(watch, stream.identifier);
        if (isRoot) {
            record(stream, stream.rootPath, kNBFileSystemEventFlagRootChanged);
            switchToPolling(stream, false, ENOENT);
        }
        return;
    }
    if (mask & IN_UNMOUNT) {
        record(stream, folder, kNBFileSystemEventFlagUnmount);
        return;
    }
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        // A folder below the root going away is reported by its parent; the root going away is reported
        // on the root, which is then polled so that its reappearance is noticed.
        if (isRoot) {
            record(stream, stream.rootPath, kNBFileSystemEventFlagRootChanged);
            switchToPolling(stream, false, ENOENT);
        }
        return;
    }
    if (!name.isEmpty() && nbIsSynchronisationTemporaryName(name))
        return;
    std::uint32_t flags = nbFileSystemEventFlagsForInotifyMask(mask);
    if (flags)
        record(stream, folder, flags);
    if (!(mask & IN_ISDIR) || name.isEmpty() || !stream.options.recursive)
        return;
    QString child = joinPath(folder, name);
    if (mask & (IN_MOVED_FROM | IN_DELETE))
        unwatchSubtree(stream, child);
    // The new folder's watches are added, and what it already holds reported, on the walking queue: a large
    // tree moved in must not hold up delivery.
    if (mask & (IN_CREATE | IN_MOVED_TO))
        queueWalkLocked(streamPointer, child, true);
}

void Engine::handleOverflow() {
    // The kernel's queue overflowed and changes were lost, anywhere: every stream must rescan, and folders
    // created meanwhile may lack watches, so each tree is walked again on the walking queue (existing
    // watches are kept).
    for (auto& [identifier, stream] : streams_) {
        if (stream->polling)
            continue;
        record(*stream, stream->rootPath,
               kNBFileSystemEventFlagMustScanSubDirectories | kNBFileSystemEventFlagKernelDropped);
        if (stream->options.recursive)
            queueWalkLocked(stream, stream->rootPath, false);
    }
}

void Engine::recordDifferences(NBFileEventStreamState& stream, const NBFileSnapshot& snapshot) {
    for (const auto& [folder, flags] : nbFileSnapshotDifferences(stream.snapshot, snapshot))
        record(stream, joinPath(stream.rootPath, folder), flags | kNBFileSystemEventFlagPolled);
}

std::vector<PendingEvent> Engine::takeBatch(NBFileEventStreamState& stream) {
    std::vector<PendingEvent> batch;
    batch.swap(stream.pending);
    stream.pendingIndexByPath.clear();
    stream.deadline.reset();
    return batch;
}

void Engine::deliver(const StreamPointer& stream, const std::vector<PendingEvent>& batch) {
    if (batch.empty() || !stream->running || !stream->callback)
        return;
    QDateTime now = QDateTime::currentDateTimeUtc();
    std::vector<NBFileSystemEvent> events;
    events.reserve(batch.size());
    for (const PendingEvent& pending : batch)
        events.emplace_back(pending.path, now, pending.identifier, pending.flags);
    stream->callback(events);
}

void Engine::pollStream(const StreamPointer& stream, bool onPollingQueue) {
    std::lock_guard pollLock(stream->pollMutex);
    std::uint64_t ticket = 0;
    {
        std::lock_guard lock(mutex_);
        // Only this function's caller, holding pollMutex, turns a polling stream back to watching.
        if (!stream->running || !stream->polling)
            return;
        ticket = stream->flushRequested;
    }
    if (onPollingQueue)
        runPollHook(stream->rootPath, false);
    NBFileSnapshot snapshot = nbFileSnapshotOfPath(stream->rootPath, stream->options.recursive);
    std::size_t folderCount = folderCountOfSnapshot(snapshot);
    bool rootExists = snapshot.contains(QString());
    bool retry = false;
    {
        std::lock_guard lock(mutex_);
        if (!stream->running)
            return;
        if (stream->needsBaseline) {
            stream->needsBaseline = false;
            record(*stream, stream->rootPath, kNBFileSystemEventFlagMustScanSubDirectories);
            if (isResourceError(stream->fallbackError))
                stream->retryBelowFolderCount = folderCount;
        } else {
            recordDifferences(*stream, snapshot);
        }
        stream->snapshot = std::move(snapshot);
        auto now = Clock::now();
        stream->nextPoll = now + durationForSeconds(pollingIntervalSeconds.load());
        retry = onPollingQueue && !forcedPolling().load() && inotifyDescriptor_ >= 0 &&
                (now >= stream->nextRetry || (stream->retryWhenRootExists && rootExists) ||
                 folderCount < stream->retryBelowFolderCount);
        if (!retry)
            stream->flushReady = std::max(stream->flushReady, ticket);
    }
    if (retry)
        resumeWatching(stream, ticket);
    wake();
}

void Engine::resumeWatching(const StreamPointer& stream, std::uint64_t ticket) {
    // Runs right after a poll, with pollMutex held. The watches are added first and the tree is compared
    // with the last poll afterwards: a change made before a folder's watch existed is found by the
    // comparison, a later one by inotify, and one that both see lands in the same pending event.
    std::unique_lock lock(mutex_);
    if (!stream->running)
        return;
    std::uint64_t generation = ++stream->generation;
    stream->polling = false;
    stream->resuming = true;
    lock.unlock();
    runPollHook(stream->rootPath, true);
    lock.lock();
    int error = stream->running && stream->generation == generation
                    ? watchTree(*stream, stream->rootPath, false, true, &lock, generation)
                    : ECANCELED;
    // Stopped, or fell back again meanwhile (its new baseline reports a rescan).
    if (!stream->running || stream->generation != generation) {
        stream->resuming = false;
        return;
    }
    if (error) {
        stream->resuming = false;
        // Still impossible. The last poll stays the baseline, so the next poll reports whatever changed
        // during this attempt.
        unwatchAll(*stream);
        ++stream->generation;
        stream->polling = true;
        setRetryTriggers(*stream, error, folderCountOfSnapshot(stream->snapshot));
        stream->nextRetry = Clock::now() + durationForSeconds(watchRetryIntervalSeconds.load());
        stream->flushReady = std::max(stream->flushReady, ticket);
        return;
    }
    lock.unlock();
    NBFileSnapshot snapshot = nbFileSnapshotOfPath(stream->rootPath, stream->options.recursive);
    lock.lock();
    stream->resuming = false;
    if (!stream->running || stream->generation != generation)
        return;
    recordDifferences(*stream, snapshot);
    NBFileSnapshot().swap(stream->snapshot);
    setRetryTriggers(*stream, 0, 0);
    stream->flushReady = std::max(stream->flushReady, ticket);
    qCDebug(lcFileObserver).noquote()
        << nbFormat("Watching %@ again instead of polling it", stream->rootPath);
}

void Engine::flush(const StreamPointer& stream, bool wait) {
    if (wait && std::this_thread::get_id() == threadIdentifier_) {
        // Called from an observer's method on the delivery thread: waiting for the thread would wait for
        // ourselves, so do its work for this stream here.
        pollStream(stream, false);
        std::vector<PendingEvent> batch;
        {
            std::lock_guard lock(mutex_);
            readInotifyEvents();
            batch = takeBatch(*stream);
        }
        deliver(stream, batch);
        return;
    }
    std::uint64_t ticket = 0;
    {
        std::lock_guard lock(mutex_);
        ticket = ++stream->flushRequested;
        if (stream->polling)
            schedulePollLocked();
    }
    wake();
    if (!wait)
        return;
    std::unique_lock lock(mutex_);
    flushCondition_.wait(lock, [&] { return stream->flushServed >= ticket || !stream->running; });
}

void Engine::run() {
    for (;;) {
        int timeout = -1;
        int inotifyDescriptor = -1;
        {
            std::lock_guard lock(mutex_);
            auto now = Clock::now();
            std::optional<Clock::time_point> nearest;
            for (const auto& [identifier, stream] : streams_) {
                if (stream->flushReady > stream->flushServed ||
                    (isCaughtUp(*stream) && stream->flushRequested > stream->flushServed))
                    nearest = now;
                if (stream->deadline && (!nearest || *stream->deadline < *nearest))
                    nearest = stream->deadline;
            }
            if (nearest) {
                auto remaining = std::chrono::ceil<std::chrono::milliseconds>(*nearest - now).count();
                timeout = int(std::clamp<long long>(remaining, 0, 60 * 60 * 1000));
            }
            // Without a wake-up descriptor, new streams and flushes are noticed by waking regularly.
            if (wakeDescriptor_ < 0 && (timeout < 0 || timeout > 100))
                timeout = 100;
            // A negative descriptor is skipped by poll(): while reading is paused, pending kernel events
            // must not wake the thread over and over.
            inotifyDescriptor = readingPaused_ ? -1 : inotifyDescriptor_;
        }
        pollfd descriptors[2] = {{inotifyDescriptor, POLLIN, 0}, {wakeDescriptor_, POLLIN, 0}};
        int polled = poll(descriptors, 2, timeout);
        if (polled < 0 && errno != EINTR)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (wakeDescriptor_ >= 0) {
            std::uint64_t count = 0;
            ssize_t readCount = read(wakeDescriptor_, &count, sizeof count);
            (void)readCount; // EAGAIN when nothing woke us
        }

        struct Delivery {
            StreamPointer stream;
            std::vector<PendingEvent> batch;
            std::uint64_t ticket = 0;
        };
        std::vector<Delivery> deliveries;
        {
            std::lock_guard lock(mutex_);
            readInotifyEvents();
            auto now = Clock::now();
            for (const auto& [identifier, stream] : streams_) {
                // A watching stream's changes up to now have just been read, unless a walk of a new folder is
                // still to report what it held; a polling stream's flush is ready once the polling queue has
                // polled it, and a resuming one's once it has compared.
                if (isCaughtUp(*stream))
                    stream->flushReady = stream->flushRequested;
                if (stream->flushReady > stream->flushServed ||
                    (stream->deadline && now >= *stream->deadline))
                    deliveries.push_back({stream, takeBatch(*stream), stream->flushReady});
            }
        }
        for (const Delivery& delivery : deliveries)
            deliver(delivery.stream, delivery.batch);
        if (!deliveries.empty()) {
            std::lock_guard lock(mutex_);
            for (const Delivery& delivery : deliveries)
                delivery.stream->flushServed = std::max(delivery.stream->flushServed, delivery.ticket);
            flushCondition_.notify_all();
        }
    }
}

} // namespace

NBFileEventStream::NBFileEventStream(const QString& path, Callback callback,
                                     NBFileEventStreamOptions options) {
    static std::atomic<std::uint64_t> nextIdentifier{1};
    identifier_ = nextIdentifier++;
    state_ = std::make_shared<NBFileEventStreamState>();
    state_->identifier = identifier_;
    state_->rootPath =
        QDir::cleanPath(QDir::isAbsolutePath(path) ? path : QDir::current().absoluteFilePath(path));
    state_->callback = std::move(callback);
    state_->options = options;
    Engine::shared().addStream(state_);
}

NBFileEventStream::~NBFileEventStream() {
    stop();
}

bool NBFileEventStream::isPolling() const {
    return state_->polling;
}

void NBFileEventStream::stop() {
    if (state_->running)
        Engine::shared().removeStream(state_);
}

bool NBFileEventStream::isStopped() const {
    return !state_->running;
}

void NBFileEventStream::flushSynchronously() {
    if (state_->running)
        Engine::shared().flush(state_, true);
}

void NBFileEventStream::flushAsynchronously() {
    if (state_->running)
        Engine::shared().flush(state_, false);
}

void NBFileEventStream::setLatency(double seconds) {
    latencySeconds = seconds > 0 ? seconds : 0.0;
}

double NBFileEventStream::latency() {
    return latencySeconds;
}

void NBFileEventStream::setForcesPolling(bool forcesPolling) {
    forcedPolling() = forcesPolling;
}

bool NBFileEventStream::forcesPolling() {
    return forcedPolling();
}

void NBFileEventStream::setPollingInterval(double seconds) {
    pollingIntervalSeconds = seconds > 0.05 ? seconds : 0.05;
    Engine::shared().pollingIntervalChanged();
}

double NBFileEventStream::pollingInterval() {
    return pollingIntervalSeconds;
}

void NBFileEventStream::setWatchRetryInterval(double seconds) {
    watchRetryIntervalSeconds = seconds > 0.05 ? seconds : 0.05;
}

double NBFileEventStream::watchRetryInterval() {
    return watchRetryIntervalSeconds;
}

void NBFileEventStream::setWatchLimit(std::size_t limit) {
    watchLimitCount = limit;
}

std::size_t NBFileEventStream::watchLimit() {
    return watchLimitCount;
}

std::size_t NBFileEventStream::watchDescriptorCount() {
    return Engine::shared().watchDescriptorCount();
}

void NBFileEventStream::setPausesReading(bool pauses) {
    Engine::shared().setPausesReading(pauses);
}

void NBFileEventStream::setPollHook(PollHook hook) {
    std::lock_guard lock(testHooks().mutex);
    testHooks().poll = std::move(hook);
}

void NBFileEventStream::setWalkHook(WalkHook hook) {
    std::lock_guard lock(testHooks().mutex);
    testHooks().walk = std::move(hook);
}

std::uint32_t nbFileSystemEventFlagsForInotifyMask(std::uint32_t mask) {
    std::uint32_t flags = 0;
    if (mask & IN_CREATE)
        flags |= kNBFileSystemEventFlagItemCreated;
    if (mask & IN_DELETE)
        flags |= kNBFileSystemEventFlagItemRemoved;
    if (mask & IN_MODIFY)
        flags |= kNBFileSystemEventFlagItemModified;
    if (mask & IN_ATTRIB)
        flags |= kNBFileSystemEventFlagItemInodeMetaModified;
    if (mask & (IN_MOVED_FROM | IN_MOVED_TO))
        flags |= kNBFileSystemEventFlagItemRenamed;
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF))
        flags |= kNBFileSystemEventFlagRootChanged;
    if (mask & IN_UNMOUNT)
        flags |= kNBFileSystemEventFlagUnmount;
    if (mask & IN_Q_OVERFLOW)
        flags |= kNBFileSystemEventFlagMustScanSubDirectories | kNBFileSystemEventFlagKernelDropped;
    if (flags & (kNBFileSystemEventFlagItemCreated | kNBFileSystemEventFlagItemRemoved |
                 kNBFileSystemEventFlagItemModified | kNBFileSystemEventFlagItemInodeMetaModified |
                 kNBFileSystemEventFlagItemRenamed))
        flags |= (mask & IN_ISDIR) ? kNBFileSystemEventFlagItemIsDirectory : kNBFileSystemEventFlagItemIsFile;
    return flags;
}

bool nbIsSynchronisationTemporaryName(const QString& name) {
    if (name == QLatin1String(".dropbox.cache"))
        return true;
    if (name.startsWith(QLatin1String("~syncthing~")))
        return true;
    // ".syncthing.*.tmp": the prefix and the suffix must not overlap (".syncthing.tmp" is an ordinary name).
    constexpr qsizetype shortestTemporaryName = 15; // ".syncthing." + ".tmp"
    return name.size() >= shortestTemporaryName && name.startsWith(QLatin1String(".syncthing.")) &&
           name.endsWith(QLatin1String(".tmp"));
}

NBFileSnapshot nbFileSnapshotOfPath(const QString& rootPath, bool recursive) {
    NBFileSnapshot snapshot;
    auto entryForStatus = [](const struct stat& status) {
        NBFileSnapshotEntry entry;
        entry.isDirectory = S_ISDIR(status.st_mode);
        entry.size = entry.isDirectory ? 0 : qint64(status.st_size);
        entry.modificationTime = qint64(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
        return entry;
    };
    struct stat status {};
    if (stat(QFile::encodeName(rootPath).constData(), &status) != 0)
        return snapshot;
    snapshot.emplace(QString(), entryForStatus(status));
    if (!S_ISDIR(status.st_mode))
        return snapshot;
    std::vector<QString> folders{QString()};
    while (!folders.empty()) {
        QString relativeFolder = folders.back();
        folders.pop_back();
        QByteArray encoded = QFile::encodeName(joinPath(rootPath, relativeFolder));
        DIR* directory = opendir(encoded.constData());
        if (!directory)
            continue;
        while (dirent* entry = readdir(directory)) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            QString name = QFile::decodeName(entry->d_name);
            if (nbIsSynchronisationTemporaryName(name))
                continue;
            QString relativePath = relativeFolder.isEmpty() ? name : relativeFolder + QLatin1Char('/') + name;
            struct stat entryStatus {};
            if (lstat(QFile::encodeName(joinPath(rootPath, relativePath)).constData(), &entryStatus) != 0)
                continue; // removed while walking
            NBFileSnapshotEntry snapshotEntry = entryForStatus(entryStatus);
            snapshot.emplace(relativePath, snapshotEntry);
            if (snapshotEntry.isDirectory && recursive)
                folders.push_back(relativePath);
        }
        closedir(directory);
    }
    return snapshot;
}

std::vector<std::pair<QString, std::uint32_t>> nbFileSnapshotDifferences(const NBFileSnapshot& before,
                                                                         const NBFileSnapshot& after) {
    std::vector<std::pair<QString, std::uint32_t>> differences;
    QHash<QString, std::size_t> indexByFolder;
    auto add = [&](const QString& folder, std::uint32_t flags) {
        auto found = indexByFolder.constFind(folder);
        if (found != indexByFolder.constEnd()) {
            differences[found.value()].second |= flags;
            return;
        }
        indexByFolder.insert(folder, differences.size());
        differences.emplace_back(folder, flags);
    };
    auto folderOf = [](const QString& relativePath) {
        qsizetype slash = relativePath.lastIndexOf(QLatin1Char('/'));
        return slash < 0 ? QString() : relativePath.left(slash);
    };
    auto kindFlag = [](const NBFileSnapshotEntry& entry) {
        return entry.isDirectory ? kNBFileSystemEventFlagItemIsDirectory : kNBFileSystemEventFlagItemIsFile;
    };
    // Both maps are sorted by path: one merge pass finds entries only before, only after, or in both.
    auto old = before.begin();
    auto current = after.begin();
    while (old != before.end() || current != after.end()) {
        if (current == after.end() || (old != before.end() && old->first < current->first)) {
            if (old->first.isEmpty())
                add(QString(), kNBFileSystemEventFlagRootChanged | kNBFileSystemEventFlagItemRemoved |
                                   kindFlag(old->second));
            else
                add(folderOf(old->first), kNBFileSystemEventFlagItemRemoved | kindFlag(old->second));
            ++old;
        } else if (old == before.end() || current->first < old->first) {
            if (current->first.isEmpty())
                add(QString(), kNBFileSystemEventFlagRootChanged | kNBFileSystemEventFlagItemCreated |
                                   kindFlag(current->second));
            else
                add(folderOf(current->first), kNBFileSystemEventFlagItemCreated | kindFlag(current->second));
            ++current;
        } else {
            const NBFileSnapshotEntry& was = old->second;
            const NBFileSnapshotEntry& is = current->second;
            if (was.isDirectory != is.isDirectory) {
                add(folderOf(current->first),
                    kNBFileSystemEventFlagItemRemoved | kNBFileSystemEventFlagItemCreated | kindFlag(is));
            } else if (!is.isDirectory && was != is) {
                // A folder's own time changes with every entry added or removed, which its entries already
                // report; only files count as modified.
                add(folderOf(current->first),
                    kNBFileSystemEventFlagItemModified | kNBFileSystemEventFlagItemIsFile);
            }
            ++old;
            ++current;
        }
    }
    return differences;
}
