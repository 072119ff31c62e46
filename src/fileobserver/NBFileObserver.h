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
// - Watch limit: each folder costs one watch, and the per-user limit is fs.inotify.max_user_watches. When a
//   watch cannot be added (ENOSPC at the limit, or any failure on the observed path itself, including a path
//   that does not exist yet) or inotify cannot be initialised, the stream logs
//   "ERROR: could not start FSEventStream for path %@" and falls back to polling: every
//   kNBFileObserverPollingInterval seconds it compares a snapshot of names, sizes and modification times
//   below the path and reports the folders that differ (flag kNBFileSystemEventFlagPolled).
// - Renames: inotify reports the two halves of a rename separately; the stream reports both folders as
//   renamed, drops the watches of a folder moved away and walks a folder moved in.
// - Overflow: when the kernel's queue overflows (IN_Q_OVERFLOW) events are lost; every stream then reports a
//   rescan event for its root (kNBFileSystemEventFlagMustScanSubDirectories) and re-walks its tree.
// - The observed path itself going away (deleted, renamed, unmounted) is reported on the root with
//   kNBFileSystemEventFlagRootChanged; the stream then polls the path, so its reappearance is noticed.
// - Observe folders: replacing an observed file (as atomic saves do) ends its watch, and the stream polls.
//
// Tests can shorten the latency with setCoalescingLatency, and force the polling fallback with
// setForcesPolling(true) or by setting the environment variable QUILLON_FILE_OBSERVER_POLLING=1 before the
// first stream starts.
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
    // applies to streams started afterwards.
    static void setCoalescingLatency(double seconds);
    static double coalescingLatency();
    static void setForcesPolling(bool forcesPolling);
    static bool forcesPolling();
    static void setPollingInterval(double seconds);
    static double pollingInterval();

private:
    static void deliverEvents(const void* context, std::uint64_t streamIdentifier,
                              const std::vector<NBFileSystemEvent>& events);

    const QString observedPath_;
    mutable std::mutex mutex_;
    std::shared_ptr<NBEventResponse> eventResponse_;
    std::shared_ptr<NBFileEventStream> eventStream_;
    bool setUpDone_ = false;
};
