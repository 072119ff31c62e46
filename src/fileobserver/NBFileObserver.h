// One event stream for one path: tells its response whenever something changes at or below the path.
//
// Buckets, the document editor and the store's package watching must notice what another device changed
// through a synchronised folder (a new device-information file, another device's manifest or log, new
// document packages). They register with NBFileSystemEventCenter, which makes one NBFileObserver per path, or
// hold an NBFileObserver themselves; the observer's stream starts at creation and stops once, when the
// observer is released or finds its target gone.
//
// What a stream reports (the engine is NBFileEventStream, over inotify):
// - A stream watches the observed folder and every folder below it, and each folder created or moved in
//   later (walking it, so files written into a new folder before its watch existed are reported too).
//   Symbolic links below the path are not followed. A stream made with `recursive` false watches only the
//   path and its direct entries.
// - Events are folder-level: one event per folder in which something changed, with the union of the kinds of
//   change (created, removed, modified, renamed, metadata, file or folder) as flags. A file counts as
//   modified when it is written to or truncated; opening it and closing it again is no change. Events are
//   held for the coalescing latency (kNBFileObserverLatency, about 3 s, or the stream's own) from the first
//   change after a quiet period, then delivered together, in the order of first change, on the one delivery
//   thread "NBFileObserver" that serves every stream of the process. A burst of thousands of writes thus
//   becomes a handful of calls. Event identifiers increase across the process.
// - Nothing is replayed: a change made before the observer was created is never reported.
// - Temporary files of synchronisation services (".syncthing.*.tmp", "~syncthing~*", ".dropbox.cache") are
//   ignored, so a transfer in progress does not flood observers.
// Limits, and what the stream does about them:
// - Watch limit: each folder costs one watch, and the per-user limit is fs.inotify.max_user_watches (a
//   process may set a lower limit of its own with setWatchLimit). When a watch cannot be added (ENOSPC at
//   the limit, or any other failure on a folder that exists) or inotify cannot be initialised, the stream
//   logs "ERROR: could not start FSEventStream for path %@" and falls back to polling: every
//   kNBFileObserverPollingInterval seconds it compares a snapshot of names, sizes and modification times
//   below the path and reports the folders that differ (flag kNBFileSystemEventFlagPolled). A fallback while
//   running also reports one rescan event on the root (kNBFileSystemEventFlagMustScanSubDirectories), as
//   changes made during the switch are seen by neither side. Polling runs on a dispatch queue of its own,
//   so a large polled tree never delays other streams' events.
// - A path that does not exist yet is routine, not an error: the stream polls it (one stat per poll) and
//   watches it as soon as it exists, reporting its appearance.
// - Polling is a fallback, not a destination: the stream tries to watch again once the tree has fewer
//   folders than when watches ran out, once a missing path exists, and otherwise every
//   kNBFileObserverWatchRetryInterval seconds. Going back reports only the folders that changed since the
//   last poll, with no gap between the last poll and the new watches.
// - Renames: the kernel reports the two halves of a rename separately; the stream reports both folders as
//   renamed, drops the watches of a folder moved away and walks a folder moved in, so later changes inside
//   a renamed folder are reported under its new path.
// - Overflow: when the kernel's queue overflows (IN_Q_OVERFLOW, after fs.inotify.max_queued_events events
//   that the delivery thread had not read yet) events are lost; every watching stream then reports a rescan
//   event for its root (kNBFileSystemEventFlagMustScanSubDirectories with KernelDropped) and re-walks its
//   tree, adding watches to folders created while events were lost.
// - The observed path itself going away (deleted, renamed, unmounted) is reported on the root with
//   kNBFileSystemEventFlagRootChanged; the stream then polls the path, so its reappearance is noticed, and
//   watches it again once it is back. The same holds for an observed file replaced by an atomic save.
//
// Tests can shorten the latency with setCoalescingLatency, and force the polling fallback with
// setForcesPolling(true) or by setting the environment variable QUILLON_FILE_OBSERVER_POLLING=1 before the
// first stream starts. NBFileEventStream has the seams that pause reading the kernel's queue and hold a poll
// or a walk in progress.
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
    fileObserverWithPath(const QString& path, std::shared_ptr<NBEventResponse> eventResponse,
                         NBFileEventStreamOptions options = {});
    NBFileObserver(PrivateTag, const QString& path, std::shared_ptr<NBEventResponse> eventResponse,
                   NBFileEventStreamOptions options);
    ~NBFileObserver();
    NBFileObserver(const NBFileObserver&) = delete;
    NBFileObserver& operator=(const NBFileObserver&) = delete;

    const QString& observedPath() const { return observedPath_; }
    std::shared_ptr<NBEventResponse> eventResponse() const;
    // The running stream, or null once torn down.
    std::shared_ptr<NBFileEventStream> eventStream() const;

    // Starts the stream (once; later calls do nothing). The stream holds the observer weakly: events for an
    // observer that is being destroyed are dropped.
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
    static void deliverEvents(const std::weak_ptr<NBFileObserver>& observer,
                              const std::vector<NBFileSystemEvent>& events);

    const QString observedPath_;
    const NBFileEventStreamOptions options_;
    mutable std::mutex mutex_;
    std::shared_ptr<NBEventResponse> eventResponse_;
    std::shared_ptr<NBFileEventStream> eventStream_;
    bool setUpDone_ = false;
    bool tornDown_ = false;
};
