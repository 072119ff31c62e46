// One event stream for one path: tells its response whenever something changes at or below the path.
//
// Buckets and the document editor must notice what another device changed through a synchronised folder (a
// new device-information file, another device's manifest, new document packages). They register with
// NBFileSystemEventCenter, which makes one NBFileObserver per path; the observer's stream starts at creation
// and stops once, when the observer is released or finds its target gone.
//
// How the stream works on Linux. There is no FSEvents here; inotify stands in for it:
// - inotify watches single folders, so a stream adds a watch to the observed folder and to every folder
//   below it, and to each folder created or moved in later (walking it at once, so files written into a new
//   folder before its watch existed are reported too). Symbolic links below the path are not followed.
// - The kernel reports single entries; the stream turns them into folder-level events: one event per folder
//   in which something changed, with the union of the kinds of change (created, removed, modified, renamed,
//   metadata, file or folder) as flags. Events are held for the coalescing latency (kNBFileObserverLatency,
//   about 3 s) from the first change after a quiet period, then delivered together, in the order of first
//   change, on the one delivery thread "NBFileObserver" that serves every stream of the process. A burst of
//   thousands of writes thus becomes a handful of calls. Event identifiers increase across the process.
// - Nothing is replayed: a change made before the observer was created is never reported.
// - Temporary files of synchronisation services (".syncthing.*.tmp", "~syncthing~*", ".dropbox.cache") are
//   ignored, so a transfer in progress does not flood observers.
// Limits, and what the stream does about them:
// - Watch limit: each folder costs one watch, and the per-user limit is fs.inotify.max_user_watches (a
//   process may set a lower limit of its own with setWatchLimit). When a watch cannot be added (ENOSPC at
//   the limit, or any failure on the observed path itself, including a path that does not exist yet) or
//   inotify cannot be initialised, the stream logs "ERROR: could not start FSEventStream for path %@" and
//   falls back to polling: every kNBFileObserverPollingInterval seconds it compares a snapshot of names,
//   sizes and modification times below the path and reports the folders that differ (flag
//   kNBFileSystemEventFlagPolled). A fallback while running also reports one rescan event on the root
//   (kNBFileSystemEventFlagMustScanSubDirectories), as changes made during the switch are seen by neither
//   side. Polling happens on a thread of its own, so a large polled tree never delays other streams' events.
// - Polling is a fallback, not a destination: the stream tries to watch again once the tree has fewer
//   folders than when watches ran out, once a missing path exists, and otherwise every
//   kNBFileObserverWatchRetryInterval seconds. Going back reports only the folders that changed since the
//   last poll, with no gap between the last poll and the new watches.
// - Renames: inotify reports the two halves of a rename separately; the stream reports both folders as
//   renamed, drops the watches of a folder moved away and walks a folder moved in.
// - Overflow: when the kernel's queue overflows (IN_Q_OVERFLOW, after fs.inotify.max_queued_events events
//   that the delivery thread had not read yet) events are lost; every watching stream then reports a rescan
//   event for its root (kNBFileSystemEventFlagMustScanSubDirectories with KernelDropped) and re-walks its
//   tree, adding watches to folders created while events were lost.
// - The observed path itself going away (deleted, renamed, unmounted) is reported on the root with
//   kNBFileSystemEventFlagRootChanged; the stream then polls the path, so its reappearance is noticed, and
//   watches it again once it is back.
// - Replacing an observed file (as atomic saves do) ends its watch; the stream polls until the new file is
//   there and then watches that.
//
// Tests can shorten the latency with setCoalescingLatency, and force the polling fallback with
// setForcesPolling(true) or by setting the environment variable QUILLON_FILE_OBSERVER_POLLING=1 before the
// first stream starts. NBFileEventStream has the seams that pause reading the kernel's queue and hook into
// the polling thread.
#pragma once

#include "fileobserver/NBEventResponse.h"
#include "fileobserver/NBFileEventStream.h"
#include "fileobserver/NBFileSystemEvent.h"

#include <QString>

#include <memory>
#include <mutex>

// Seconds from the first change after a quiet period to the delivery of the coalesced events. Three seconds
// turn a synchronisation client's burst of writes into a few calls while a change from another device still
// shows within moments.
inline constexpr double kNBFileObserverLatency = 3.0;
// Seconds between two snapshots of a polled path.
inline constexpr double kNBFileObserverPollingInterval = 2.0;
// Seconds between two attempts of a polling stream to watch its tree again, when nothing suggests sooner.
// An attempt walks the tree once, as a poll does, and a failed one gives its watches back at once; one a
// minute costs a small fraction of polling every two seconds.
inline constexpr double kNBFileObserverWatchRetryInterval = 60.0;
// Environment variable that, set to a non-zero value, makes every stream poll (read at first use).
inline constexpr const char* kNBFileObserverPollingEnvironmentVariable = "QUILLON_FILE_OBSERVER_POLLING";

class NBFileObserver : public std::enable_shared_from_this<NBFileObserver> {
    struct PrivateTag {};

public:
    // Null for an empty path. The stream is started (setUp) before this returns.
    static std::shared_ptr<NBFileObserver>
    fileObserverWithPath(const QString& path, std::shared_ptr<NBEventResponse> eventResponse);
    NBFileObserver(PrivateTag, const QString& path, std::shared_ptr<NBEventResponse> eventResponse);
    ~NBFileObserver();
    NBFileObserver(const NBFileObserver&) = delete;
    NBFileObserver& operator=(const NBFileObserver&) = delete;

    const QString& observedPath() const { return observedPath_; }
    std::shared_ptr<NBEventResponse> eventResponse() const;
    // The running stream, or null once torn down.
    std::shared_ptr<NBFileEventStream> eventStream() const;

    // Registers the observer among the live ones and starts its stream (once; later calls do nothing while
    // a stream exists).
    void setUp();
    // Stops and releases the stream; a second call does nothing.
    void tearDown();
    // What the stream does with each event: with the response's target gone, clears the response and tears
    // the stream down without calling anything; otherwise invokes the response.
    void postFileSystemEvent(const NBFileSystemEvent& event);
    // Deliver the events held for coalescing now, waiting for the calls to finish or not.
    void flushSynchronously();
    void flushAsynchronously();

    // Tuning shared by every stream. The latency applies from the next coalescing window; forced polling
    // applies to streams started afterwards, and while it is on no polling stream tries to watch again.
    static void setCoalescingLatency(double seconds);
    static double coalescingLatency();
    static void setForcesPolling(bool forcesPolling);
    static bool forcesPolling();
    static void setPollingInterval(double seconds);
    static double pollingInterval();
    static void setWatchRetryInterval(double seconds);
    static double watchRetryInterval();
    // The most inotify watches this process's streams may hold (0, the default: only the kernel's limit);
    // a lower limit leaves watches for other programs of the user.
    static void setWatchLimit(std::size_t limit);
    static std::size_t watchLimit();

private:
    static void deliverEvents(const void* context, std::uint64_t streamIdentifier,
                              const std::vector<NBFileSystemEvent>& events);

    const QString observedPath_;
    mutable std::mutex mutex_;
    std::shared_ptr<NBEventResponse> eventResponse_;
    std::shared_ptr<NBFileEventStream> eventStream_;
    bool setUpDone_ = false;
};
