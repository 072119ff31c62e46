// The event stream under every file observer: a watch of one path with inotify (recursive unless asked
// otherwise), coalesced into folder-level events and delivered on one dedicated thread; or, when the path
// cannot be watched, a poll of the path every few seconds, until watching it becomes possible again. See
// NBFileObserver.h for what a stream reports.
//
// Threads and queues. All streams of the process share one inotify instance (the per-user limit on
// instances is small, 128 by default) and one delivery thread, "NBFileObserver", which waits on the inotify
// descriptor, an eventfd that wakes it for flushes and new streams, and the nearest end of a coalescing
// window. The delivery thread only reads the kernel's events, records them and hands batches over: whatever
// walks a tree runs elsewhere, so that one stream's large tree never delays another stream's events.
// - Walks that add watches to a folder created or moved into a watched tree, and the re-walks after a
//   kernel queue overflow, run on the serial dispatch queue "NBFileObserver.walks". They let go of the
//   engine's lock between folders.
// - Polling runs on the serial dispatch queue "NBFileObserver.polling", driven by one named timer due at the
//   next poll of any polled stream. A snapshot of a large tree can take seconds; the delivery thread never
//   waits for it.
// - A new stream's first walk runs on the thread that creates it, with the lock let go between folders, so
//   that the stream watches its whole tree before its constructor returns.
// Watches are shared between streams that observe overlapping folders: the kernel returns one watch
// descriptor per folder and instance, so the descriptor is removed only when the last stream using it lets
// go.
//
// Coalescing: the first change after a quiet period opens a window of the stream's latency; when it ends,
// every folder that changed during the window is delivered once, in the order of its first change, with the
// union of its flags. Changes that arrive during delivery open the next window.
//
// Between watching and polling, nothing is lost and nothing is repeated wholesale:
// - Watching -> polling (a watch could not be added, the root went away): the watches go at once; the
//   polling queue takes the baseline snapshot and reports a rescan of the root
//   (kNBFileSystemEventFlagMustScanSubDirectories), since a change between the fallback and the baseline is
//   seen by neither side.
// - Polling -> watching: tried right after a poll once the tree holds fewer folders than when watches ran
//   out, once a missing root exists, and otherwise every watch retry interval (never while polling is
//   forced). The watches are added first and the tree is then compared with that last poll: a change made
//   before its folder's watch existed is found by the comparison, a later one by inotify, and one seen by
//   both lands in the same pending event. Only folders that changed are reported. An attempt that fails
//   gives its watches back at once and the stream goes on polling from its last snapshot.
//
// The small pure helpers at the end (flags for an inotify mask, synchronisation temporaries, snapshot
// comparison) are the parts worth testing without a kernel.
#pragma once

#include "fileobserver/NBFileSystemEvent.h"

#include <QLoggingCategory>
#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

Q_DECLARE_LOGGING_CATEGORY(lcFileObserver)

struct NBFileEventStreamState;

// How one stream observes its path.
struct NBFileEventStreamOptions {
    // Seconds from the first change after a quiet period to the delivery of the coalesced events; negative:
    // the latency shared by all streams (NBFileEventStream::setLatency).
    double latency = -1;
    // False: only the path itself and its direct entries; folders below them are neither watched nor polled.
    bool recursive = true;
};

class NBFileEventStream {
public:
    // Receives one coalesced batch on the delivery thread, the events in order.
    using Callback = std::function<void(const std::vector<NBFileSystemEvent>&)>;

    // Starts observing at once; changes made before this returns are not reported. When the path cannot be
    // watched, logs "ERROR: could not start FSEventStream for path %@" and polls instead; a path that does
    // not exist yet is polled without an error, and watched once it exists.
    NBFileEventStream(const QString& path, Callback callback, NBFileEventStreamOptions options = {});
    ~NBFileEventStream();
    NBFileEventStream(const NBFileEventStream&) = delete;
    NBFileEventStream& operator=(const NBFileEventStream&) = delete;

    std::uint64_t identifier() const { return identifier_; }
    // True when the stream compares snapshots instead of receiving kernel events.
    bool isPolling() const;
    // Stops delivery; pending changes are dropped. A second call does nothing. After it returns no new
    // delivery starts for this stream (one already running on the delivery thread may finish).
    void stop();
    bool isStopped() const;
    // Ends the current coalescing window now (and polls now, when polling). The synchronous form returns
    // after the delivery thread has handed the pending events to the callback.
    void flushSynchronously();
    void flushAsynchronously();

    // The tuning shared by all streams (see NBFileObserver.h for the public setters).
    static void setLatency(double seconds);
    static double latency();
    static void setForcesPolling(bool forcesPolling);
    static bool forcesPolling();
    static void setPollingInterval(double seconds);
    static double pollingInterval();
    static void setWatchRetryInterval(double seconds);
    static double watchRetryInterval();
    // The most inotify watches the process's streams may hold together (0: only the kernel's limit). A watch
    // beyond it fails as one beyond the kernel's limit does (ENOSPC), and the stream polls.
    static void setWatchLimit(std::size_t limit);
    static std::size_t watchLimit();
    // The number of inotify watch descriptors the process holds for its streams.
    static std::size_t watchDescriptorCount();

    // Test seams. While reading is paused the delivery thread leaves the kernel's events queued (tests use
    // it to make the queue overflow for real); once this returns, no read is under way.
    static void setPausesReading(bool pauses);
    // Called on the polling queue just before it walks a polled tree: with resumingWatch false before a
    // poll, true before an attempt to watch the tree again (the stream then no longer counts as polling, and
    // none of its watches exist yet). Tests use it to hold a poll in progress or to change the tree at a
    // chosen moment.
    using PollHook = std::function<void(const QString& path, bool resumingWatch)>;
    static void setPollHook(PollHook hook);
    // Called on the walking queue before it walks a folder that appeared in a watched tree, or a tree after
    // an overflow. Tests use it to hold a walk in progress.
    using WalkHook = std::function<void(const QString& folder)>;
    static void setWalkHook(WalkHook hook);

private:
    std::uint64_t identifier_ = 0;
    std::shared_ptr<NBFileEventStreamState> state_;
};

// --- Pure helpers ---

// Flags of an event reported by inotify with this mask.
std::uint32_t nbFileSystemEventFlagsForInotifyMask(std::uint32_t mask);

// True for the temporary files that synchronisation services write while a transfer is in progress
// (Syncthing's ".syncthing.<name>.tmp" and "~syncthing~<name>", Dropbox's ".dropbox.cache" folder): changes
// to them are not reported, so a sync in progress does not flood observers with events.
bool nbIsSynchronisationTemporaryName(const QString& name);

// One entry of a polling snapshot.
struct NBFileSnapshotEntry {
    qint64 size = 0;
    qint64 modificationTime = 0; // nanoseconds since the Unix epoch
    bool isDirectory = false;
    friend bool operator==(const NBFileSnapshotEntry&, const NBFileSnapshotEntry&) = default;
};
// Entries by path relative to the observed path; "" is the observed path itself (absent when it does not
// exist). Synchronisation temporaries are left out and symbolic links below the root are not followed.
using NBFileSnapshot = std::map<QString, NBFileSnapshotEntry>;

// Without `recursive`, only the root and its direct entries.
NBFileSnapshot nbFileSnapshotOfPath(const QString& rootPath, bool recursive = true);

// The folder-level changes between two snapshots of one path: for every entry created, removed or changed,
// the relative path of the folder holding it ("" for the root) with the flags of what happened there.
// An appearing or disappearing root is reported on "" with kNBFileSystemEventFlagRootChanged.
std::vector<std::pair<QString, std::uint32_t>> nbFileSnapshotDifferences(const NBFileSnapshot& before,
                                                                         const NBFileSnapshot& after);
