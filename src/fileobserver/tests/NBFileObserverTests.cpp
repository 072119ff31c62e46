// Tests of folder observation: registrations and counts, weakly held observers, no replayed history,
// coalescing of bursts, what counts as a change, recursion into new and renamed folders, streams sharing
// watches, missing and removed roots, the polling fallback and the way back from it, a real overflow of the
// kernel's queue, polls and walks that do not hold up other streams, and the pure helpers.
#include "fileobserver/NBFileSystemEventCenter.h"

#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// What a recorder received; outlives the recorder so tests can look after destroying it.
struct EventLog {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<NBFileSystemEvent> events;

    std::vector<NBFileSystemEvent> all() {
        std::lock_guard lock(mutex);
        return events;
    }
    std::size_t size() {
        std::lock_guard lock(mutex);
        return events.size();
    }
    // Waits for a matching event among those received from index `from` on; generous timeout, loaded
    // machines.
    bool waitForEvent(const std::function<bool(const NBFileSystemEvent&)>& matches, std::size_t from = 0) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 30s, [&] {
            return std::any_of(events.begin() + qsizetype(std::min(from, events.size())), events.end(),
                               matches);
        });
    }
    // ... an event on `path` carrying every one of `flags`.
    bool waitForPath(const QString& path, std::uint32_t flags = 0, std::size_t from = 0) {
        return waitForEvent(
            [&](const auto& event) { return event.path() == path && (event.flags() & flags) == flags; },
            from);
    }
};

class Recorder {
public:
    explicit Recorder(std::shared_ptr<EventLog> log) : log_(std::move(log)) {}
    void fileSystemEventDidOccur(const NBFileSystemEvent& event) {
        std::lock_guard lock(log_->mutex);
        log_->events.push_back(event);
        log_->changed.notify_all();
    }

private:
    std::shared_ptr<EventLog> log_;
};

void writeFile(const QString& path, const QByteArray& contents = "x") {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(path);
    file.write(contents);
}

QString describe(const std::vector<NBFileSystemEvent>& events) {
    QStringList lines;
    for (const auto& event : events)
        lines << QStringLiteral("%1 %2 %3")
                     .arg(event.identifier())
                     .arg(event.path(), NBFileSystemEvent::descriptionOfFlags(event.flags()));
    return lines.join(QLatin1Char('\n'));
}

// Waits until the condition holds; generous timeout, loaded machines.
bool waitUntil(const std::function<bool()>& condition, std::chrono::seconds timeout = 30s) {
    auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// True when the event tells an observer of `folder` to look at it: an event on the folder itself, or a
// rescan event on it or a folder above it.
bool covers(const NBFileSystemEvent& event, const QString& folder) {
    if (event.path() == folder)
        return true;
    return (event.flags() & kNBFileSystemEventFlagMustScanSubDirectories) &&
           folder.startsWith(event.path() + QLatin1Char('/'));
}

void expectIncreasingIdentifiers(const std::vector<NBFileSystemEvent>& events) {
    for (std::size_t index = 1; index < events.size(); ++index)
        EXPECT_LT(events[index - 1].identifier(), events[index].identifier()) << qPrintable(describe(events));
}

// Most tests shorten the coalescing latency so they run quickly; the burst test keeps the real one.
class NBFileObserverTest : public ::testing::Test {
protected:
    void SetUp() override { NBFileObserver::setCoalescingLatency(0.3); }
    void TearDown() override {
        NBFileSystemEventCenter::defaultCenter().resetMapTable();
        NBFileObserver::setCoalescingLatency(kNBFileObserverLatency);
        NBFileObserver::setPollingInterval(kNBFileObserverPollingInterval);
        NBFileObserver::setForcesPolling(false);
        NBFileObserver::setWatchRetryInterval(kNBFileObserverWatchRetryInterval);
        NBFileObserver::setWatchLimit(0);
        NBFileEventStream::setPausesReading(false);
        NBFileEventStream::setPollHook({});
    }
    // Long enough for any event still to come to have arrived.
    static void waitOutQuietPeriod() {
        std::this_thread::sleep_for(
            std::chrono::duration<double>(3 * NBFileObserver::coalescingLatency() + 1.0));
    }

    NBFileSystemEventCenter& center = NBFileSystemEventCenter::defaultCenter();
    NBTemporaryDirectory directory;
    std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
};

TEST_F(NBFileObserverTest, CountsFollowEachRegistrationAndRemoval) {
    QDir(directory.path()).mkpath("a");
    QDir(directory.path()).mkpath("b");
    QString pathA = directory.filePath("a"), pathB = directory.filePath("b");
    std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
    auto recorder = std::make_shared<Recorder>(log);

    // Missing arguments are ignored.
    center.addObserver(std::shared_ptr<Recorder>(), &Recorder::fileSystemEventDidOccur, pathA);
    center.addObserver(recorder, static_cast<void (Recorder::*)(const NBFileSystemEvent&)>(nullptr), pathA);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, QString());
    EXPECT_EQ(center.observerCount(), 0u);

    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, pathA);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, pathB);
    EXPECT_EQ(center.observerCount(), 1u);
    EXPECT_EQ(center.fileObserverCount(), 2u);
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore + 2);
    center.removeObserver(recorder, pathA);
    EXPECT_EQ(center.observerCount(), 1u);
    EXPECT_EQ(center.fileObserverCount(), 1u);
    center.removeObserver(recorder, pathB);
    EXPECT_EQ(center.observerCount(), 0u);
    EXPECT_EQ(center.fileObserverCount(), 0u);
    // The released streams gave their watches back.
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore);

    // The same path twice makes two streams; removing the observer drops both; another observer is untouched.
    auto other = std::make_shared<Recorder>(log);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, pathA);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, pathA);
    center.addObserver(other, &Recorder::fileSystemEventDidOccur, pathB);
    EXPECT_EQ(center.observerCount(), 2u);
    EXPECT_EQ(center.fileObserverCount(), 3u);
    center.removeObserver(recorder.get());
    EXPECT_EQ(center.observerCount(), 1u);
    EXPECT_EQ(center.fileObserverCount(), 1u);
    center.resetMapTable();
    EXPECT_EQ(center.observerCount(), 0u);
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore);
}

TEST_F(NBFileObserverTest, DestroyedObserverGetsNoFurtherCallsAndItsStreamStops) {
    std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
    auto recorder = std::make_shared<Recorder>(log);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, directory.path());
    writeFile(directory.filePath("first.txt"));
    ASSERT_TRUE(log->waitForPath(directory.path()));

    // Destroyed without removing itself: no calls, and the center lets its stream go.
    recorder.reset();
    std::size_t received = log->all().size();
    writeFile(directory.filePath("second.txt"));
    waitOutQuietPeriod();
    EXPECT_EQ(log->all().size(), received) << qPrintable(describe(log->all()));
    EXPECT_EQ(center.observerCount(), 0u);
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore);

    // A file observer held elsewhere finds its target gone at the next event and stops its own stream.
    auto target = std::make_shared<Recorder>(log);
    auto fileObserver = NBFileObserver::fileObserverWithPath(
        directory.path(),
        NBEventResponse::eventResponseWithTarget(target, &Recorder::fileSystemEventDidOccur));
    ASSERT_TRUE(fileObserver->eventStream());
    target.reset();
    writeFile(directory.filePath("third.txt"));
    fileObserver->flushSynchronously();
    EXPECT_FALSE(fileObserver->eventStream());
    EXPECT_FALSE(fileObserver->eventResponse());
    EXPECT_EQ(log->all().size(), received);
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore);
}

TEST_F(NBFileObserverTest, ChangesMadeBeforeAddingAreNeverReported) {
    for (bool polling : {false, true}) {
        SCOPED_TRACE(polling ? "polling" : "inotify");
        NBMessageCapture capture; // the polling fallback logs its error
        NBFileObserver::setForcesPolling(polling);
        NBFileObserver::setPollingInterval(0.2);
        QString folder = directory.filePath(polling ? "polled" : "watched");
        QDir().mkpath(folder + "/old");
        writeFile(folder + "/old/before.txt");
        writeFile(folder + "/before.txt");
        auto eventLog = std::make_shared<EventLog>();
        auto recorder = std::make_shared<Recorder>(eventLog);
        center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, folder);
        waitOutQuietPeriod();
        EXPECT_TRUE(eventLog->all().empty()) << qPrintable(describe(eventLog->all()));

        // The same observer does see what happens afterwards.
        writeFile(folder + "/old/after.txt");
        EXPECT_TRUE(eventLog->waitForPath(folder + "/old")) << qPrintable(describe(eventLog->all()));
        for (const auto& event : eventLog->all())
            EXPECT_EQ(event.path(), folder + "/old");
        center.removeObserver(recorder.get());
    }
}

TEST_F(NBFileObserverTest, BurstOfWritesArrivesAsAHandfulOfEventsAtTheRealLatency) {
    NBFileObserver::setCoalescingLatency(kNBFileObserverLatency);
    QDir(directory.path()).mkpath("transfer");
    auto recorder = std::make_shared<Recorder>(log);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, directory.path());

    QDateTime started = QDateTime::currentDateTimeUtc();
    for (int index = 0; index < 1000; ++index)
        writeFile(directory.filePath(QStringLiteral("file-%1.txt").arg(index)), QByteArray::number(index));
    // A synchronisation service at work in another folder: its temporaries must not be reported.
    QString transfer = directory.filePath("transfer");
    writeFile(transfer + "/.syncthing.report.pdf.tmp");
    writeFile(transfer + "/~syncthing~notes.txt.tmp");
    QDir(transfer).mkpath(".dropbox.cache/2026");
    writeFile(transfer + "/.dropbox.cache/2026/cached.bin");

    ASSERT_TRUE(log->waitForPath(directory.path()));
    // Coalescing holds the first change for the latency (a lower bound, safe on a loaded machine). An event's
    // date is the moment it was handed over.
    EXPECT_GE(started.msecsTo(log->all().front().date()), qint64(900 * kNBFileObserverLatency));
    waitOutQuietPeriod();

    std::vector<NBFileSystemEvent> events = log->all();
    EXPECT_GE(events.size(), 1u);
    EXPECT_LE(events.size(), 6u) << qPrintable(describe(events));
    std::uint32_t flags = 0;
    for (const auto& event : events) {
        EXPECT_EQ(event.path(), directory.path()) << qPrintable(describe(events));
        flags |= event.flags();
    }
    EXPECT_TRUE(flags & kNBFileSystemEventFlagItemCreated) << qPrintable(describe(events));
    EXPECT_TRUE(flags & kNBFileSystemEventFlagItemIsFile) << qPrintable(describe(events));
    expectIncreasingIdentifiers(events);

    // A flush hands over what is pending at once, without waiting out the latency.
    std::size_t before = events.size();
    center.removeObserver(recorder.get()); // the flush goes through a file observer of its own
    auto target = std::make_shared<Recorder>(log);
    auto fileObserver = NBFileObserver::fileObserverWithPath(
        transfer, NBEventResponse::eventResponseWithTarget(target, [](Recorder& observed, const auto& event) {
            observed.fileSystemEventDidOccur(event);
        }));
    writeFile(transfer + "/summary.pdf");
    fileObserver->flushSynchronously();
    events = log->all();
    ASSERT_EQ(events.size(), before + 1) << qPrintable(describe(events));
    EXPECT_EQ(events.back().path(), transfer);
}

TEST_F(NBFileObserverTest, OnlyRealChangesToAFileAreReported) {
    QString path = directory.filePath("logs.db");
    writeFile(path, "rows");
    auto recorder = std::make_shared<Recorder>(log);
    auto observer = NBFileObserver::fileObserverWithPath(
        directory.path(),
        NBEventResponse::eventResponseWithTarget(recorder, &Recorder::fileSystemEventDidOccur));
    QByteArray encoded = QFile::encodeName(path);

    // A reader that opens the file for writing (as a database does) and closes it again changes nothing.
    for (int flags : {O_RDWR, O_WRONLY, O_RDONLY}) {
        int descriptor = ::open(encoded.constData(), flags | O_CLOEXEC);
        ASSERT_GE(descriptor, 0);
        char byte = 0;
        if (flags == O_RDWR) {
            ASSERT_EQ(::read(descriptor, &byte, 1), 1);
        }
        ::close(descriptor);
    }
    observer->flushSynchronously();
    waitOutQuietPeriod();
    EXPECT_TRUE(log->all().empty()) << qPrintable(describe(log->all()));

    // A write through such a handle is a change.
    int descriptor = ::open(encoded.constData(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(::pwrite(descriptor, "R", 1, 0), 1);
    ::close(descriptor);
    EXPECT_TRUE(log->waitForPath(directory.path(), kNBFileSystemEventFlagItemModified))
        << qPrintable(describe(log->all()));
}

TEST_F(NBFileObserverTest, NewMovedInAndRenamedFoldersAreWatchedUnderTheirNewPath) {
    QDir().mkpath(directory.filePath("a/inner"));
    NBTemporaryDirectory outside;
    QDir().mkpath(outside.filePath("moved/inner"));
    writeFile(outside.filePath("moved/inner/data.csv"));
    std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
    auto recorder = std::make_shared<Recorder>(log);
    auto observer = NBFileObserver::fileObserverWithPath(
        directory.path(),
        NBEventResponse::eventResponseWithTarget(recorder, &Recorder::fileSystemEventDidOccur));
    ASSERT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore + 3);

    auto path = [&](const char* relative) { return directory.filePath(QString::fromUtf8(relative)); };
    struct Step {
        const char* name;
        std::function<void()> change;
        QString reported; // a folder the change must be reported on (or below a rescan)
        QString folder;   // where a later file must be reported, and only there
    };
    const Step steps[] = {
        {"created and filled at once",
         [&] {
             QDir().mkpath(path("new/deep/er"));
             writeFile(path("new/deep/er/data.csv"));
         },
         path("new/deep/er"), path("new/deep/er")},
        {"moved in from outside",
         [&] { ASSERT_TRUE(QDir().rename(outside.filePath("moved"), path("arrived"))); },
         path("arrived/inner"), path("arrived/inner")},
        {"renamed in place", [&] { ASSERT_TRUE(QDir().rename(path("a"), path("b"))); }, directory.path(),
         path("b/inner")},
        {"moved one level down",
         [&] {
             QDir().mkpath(path("a2"));
             ASSERT_TRUE(QDir().rename(path("b"), path("a2/b")));
         },
         directory.path(), path("a2/b/inner")},
        {"moved up under another name", [&] { ASSERT_TRUE(QDir().rename(path("a2/b"), path("c"))); },
         directory.path(), path("c/inner")},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        std::size_t beforeChange = log->size();
        step.change();
        EXPECT_TRUE(
            log->waitForEvent([&](const auto& event) { return covers(event, step.reported); }, beforeChange))
            << qPrintable(describe(log->all()));
        // Once that window has closed, only a watch on the folder can report the next file.
        waitOutQuietPeriod();
        std::size_t received = log->size();
        writeFile(step.folder + "/later.csv");
        observer->flushSynchronously();
        auto events = log->all();
        ASSERT_EQ(events.size(), received + 1) << qPrintable(describe(events));
        EXPECT_EQ(events.back().path(), step.folder);
    }
    // One watch per folder and none left on old paths: the root, "new" with two below it, "arrived" and
    // its "inner", "a2", "c" and its "inner".
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore + 9);
    expectIncreasingIdentifiers(log->all());
}

TEST_F(NBFileObserverTest, StreamsSharingAFolderShareItsWatchUntilTheLastLetsGo) {
    QString sub = directory.filePath("sub");
    QDir().mkpath(sub);
    std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
    struct Stream {
        Stream(const char* streamName, const QString& streamPath, bool streamRecursive)
            : name(streamName), path(streamPath), recursive(streamRecursive) {}
        const char* name;
        QString path;
        bool recursive;
        std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
        std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>(log);
        std::shared_ptr<NBFileObserver> observer;
    };
    Stream streams[] = {
        {"tree", directory.path(), true}, {"sub", sub, true}, {"root only", directory.path(), false}};
    for (Stream& stream : streams) {
        NBFileEventStreamOptions options;
        options.recursive = stream.recursive;
        stream.observer = NBFileObserver::fileObserverWithPath(
            stream.path,
            NBEventResponse::eventResponseWithTarget(stream.recorder, &Recorder::fileSystemEventDidOccur),
            options);
    }

    // A change in the root and one in "sub" reach exactly the streams that observe them, while the streams
    // stop one after the other; the folders' watches stay until their last stream lets go.
    const struct {
        const char* stopped;
        std::size_t watches;
    } steps[] = {{"none", 2}, {"tree", 2}, {"root only", 1}, {"sub", 0}};
    for (std::size_t step = 0; step < std::size(steps); ++step) {
        SCOPED_TRACE(steps[step].stopped);
        for (Stream& stream : streams) {
            if (stream.name == std::string_view(steps[step].stopped))
                stream.observer->tearDown();
        }
        EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore + steps[step].watches);
        std::vector<std::size_t> received;
        for (Stream& stream : streams)
            received.push_back(stream.log->size());
        writeFile(directory.filePath(QStringLiteral("root-%1.txt").arg(step)));
        writeFile(sub + QStringLiteral("/sub-%1.txt").arg(step));
        for (std::size_t index = 0; index < std::size(streams); ++index) {
            Stream& stream = streams[index];
            stream.observer->flushSynchronously();
            QStringList paths, expected;
            auto events = stream.log->all();
            for (std::size_t event = received[index]; event < events.size(); ++event)
                paths << events[event].path();
            if (stream.observer->eventStream()) {
                if (stream.path == directory.path())
                    expected << directory.path();
                if (stream.recursive)
                    expected << sub;
            }
            paths.sort();
            expected.sort();
            EXPECT_EQ(paths, expected) << stream.name;
        }
    }
}

TEST_F(NBFileObserverTest, MissingOrRemovedRootIsWaitedForAndWatchedOnceItIsBack) {
    NBFileObserver::setPollingInterval(0.2);
    for (bool missingAtFirst : {true, false}) {
        SCOPED_TRACE(missingAtFirst ? "missing at first" : "removed while watched");
        NBMessageCapture capture;
        QString root = directory.filePath(missingAtFirst ? "not-yet" : "library");
        if (!missingAtFirst)
            QDir().mkpath(root + "/Local");
        std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
        auto eventLog = std::make_shared<EventLog>();
        auto recorder = std::make_shared<Recorder>(eventLog);
        auto observer = NBFileObserver::fileObserverWithPath(
            root, NBEventResponse::eventResponseWithTarget(recorder, &Recorder::fileSystemEventDidOccur));
        if (!missingAtFirst) {
            ASSERT_TRUE(QDir(root).removeRecursively());
            ASSERT_TRUE(eventLog->waitForPath(root, kNBFileSystemEventFlagRootChanged))
                << qPrintable(describe(eventLog->all()));
        }
        EXPECT_TRUE(waitUntil([&] { return NBFileEventStream::watchDescriptorCount() == watchesBefore; }));

        // Another device's sync puts the folder there: the stream, polling the path meanwhile, reports it and
        // watches it (one watch: the new folder has no "Local").
        std::size_t received = eventLog->size();
        QDir().mkpath(root);
        writeFile(root + "/Info.plist");
        EXPECT_TRUE(eventLog->waitForPath(root, kNBFileSystemEventFlagItemCreated, received))
            << qPrintable(describe(eventLog->all()));
        EXPECT_TRUE(
            waitUntil([&] { return NBFileEventStream::watchDescriptorCount() == watchesBefore + 1; }));
        received = eventLog->size();
        writeFile(root + "/Info.plist", "changed");
        EXPECT_TRUE(eventLog->waitForEvent(
            [&](const auto& event) {
                return event.path() == root && (event.flags() & kNBFileSystemEventFlagItemModified) &&
                       !(event.flags() & kNBFileSystemEventFlagPolled);
            },
            received))
            << qPrintable(describe(eventLog->all()));
        expectIncreasingIdentifiers(eventLog->all());
        // A folder that is not there is an ordinary state, neither an error nor a warning.
        for (const auto& message : capture.messages())
            EXPECT_TRUE(message.type == QtDebugMsg || message.type == QtInfoMsg) << qPrintable(message.text);
        // Now, not when the delivery thread lets go of the observer: the next case counts watches.
        observer->tearDown();
    }
}

TEST_F(NBFileObserverTest, KernelQueueOverflowMakesEveryStreamRescanAndWatchNewFolders) {
    NBMessageCapture capture;
    int queueLimit = 16384;
    QFile limitFile("/proc/sys/fs/inotify/max_queued_events");
    if (limitFile.open(QIODevice::ReadOnly))
        queueLimit = limitFile.readAll().trimmed().toInt();
    ASSERT_GT(queueLimit, 0);
    if (queueLimit > (1 << 22))
        GTEST_SKIP() << "the kernel's queue holds " << queueLimit << " events, too many to fill here";
    QString root = directory.filePath("library"), other = directory.filePath("other");
    QDir().mkpath(root + "/a");
    QDir().mkpath(root + "/b");
    QDir().mkpath(other);
    std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
    auto recorder = std::make_shared<Recorder>(log);
    auto otherLog = std::make_shared<EventLog>();
    auto otherRecorder = std::make_shared<Recorder>(otherLog);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, root);
    center.addObserver(otherRecorder, &Recorder::fileSystemEventDidOccur, other);

    // With the delivery thread not reading, fill the kernel's queue past its limit. The kernel merges an
    // event only into an identical one queued last, so alternating two kinds of change on one file makes
    // every change take its own place.
    NBFileEventStream::setPausesReading(true);
    QByteArray churnPath = QFile::encodeName(root + "/a/churn.bin");
    int descriptor = ::open(churnPath.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(descriptor, 0);
    for (int index = 0; index < queueLimit / 2 + 1000; ++index) {
        ASSERT_EQ(::pwrite(descriptor, "x", 1, 0), 1);
        ASSERT_EQ(::fchmod(descriptor, index % 2 ? 0644 : 0600), 0);
    }
    ::close(descriptor);
    // These changes come after the overflow: the kernel drops their events, and the new folders get no
    // watch from them.
    QDir().mkpath(root + "/new/inner");
    writeFile(root + "/new/inner/data.csv");
    writeFile(root + "/b/notes.txt");
    writeFile(other + "/manifest.db");
    NBFileEventStream::setPausesReading(false);

    // Both streams learn of every changed folder, through a rescan event at their root at the least.
    for (const auto& [eventLog, folders] :
         {std::pair{log, QStringList{root + "/a", root + "/b", root + "/new", root + "/new/inner"}},
          std::pair{otherLog, QStringList{other}}}) {
        for (const QString& folder : folders) {
            EXPECT_TRUE(eventLog->waitForEvent([&](const auto& event) { return covers(event, folder); }))
                << qPrintable(folder + "\n" + describe(eventLog->all()));
        }
        EXPECT_TRUE(eventLog->waitForEvent([](const auto& event) {
            return event.flags() & kNBFileSystemEventFlagKernelDropped;
        })) << qPrintable(describe(eventLog->all()));
    }
    // The streams kept watching, now with watches on the folders created while events were lost.
    EXPECT_FALSE(capture.contains("could not start")) << qPrintable(capture.texts().join('\n'));
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore + 6);
    writeFile(root + "/new/inner/later.csv");
    EXPECT_TRUE(log->waitForPath(root + "/new/inner")) << qPrintable(describe(log->all()));
    expectIncreasingIdentifiers(log->all());
}

TEST_F(NBFileObserverTest, StreamShortOfWatchesPollsUntilItCanWatchAgain) {
    NBMessageCapture capture;
    NBFileObserver::setPollingInterval(0.1);
    for (bool treeShrinks : {true, false}) {
        SCOPED_TRACE(treeShrinks ? "the tree shrinks" : "watches are freed, found at the retry interval");
        NBFileObserver::setWatchRetryInterval(treeShrinks ? 3600 : 0.5);
        QString root = directory.filePath(treeShrinks ? "shrinking" : "retrying");
        QDir().mkpath(root + "/a");
        QDir().mkpath(root + "/b");
        std::size_t watchesBefore = NBFileEventStream::watchDescriptorCount();
        NBFileObserver::setWatchLimit(watchesBefore + 3);
        auto eventLog = std::make_shared<EventLog>();
        auto target = std::make_shared<Recorder>(eventLog);
        auto observer = NBFileObserver::fileObserverWithPath(
            root, NBEventResponse::eventResponseWithTarget(target, &Recorder::fileSystemEventDidOccur));
        auto stream = observer->eventStream();
        ASSERT_FALSE(stream->isPolling());

        // One folder too many: the stream says so and polls, and the folder's contents are not lost.
        QDir().mkpath(root + "/c");
        writeFile(root + "/c/early.txt");
        EXPECT_TRUE(waitUntil([&] { return stream->isPolling(); }));
        EXPECT_TRUE(capture.contains("ERROR: could not start FSEventStream for path " + root));
        EXPECT_TRUE(eventLog->waitForEvent([&](const auto& event) { return covers(event, root + "/c"); }))
            << qPrintable(describe(eventLog->all()));
        writeFile(root + "/a/polled.txt");
        EXPECT_TRUE(eventLog->waitForPath(root + "/a", kNBFileSystemEventFlagPolled))
            << qPrintable(describe(eventLog->all()));

        // Watching becomes possible again. A change made after the last poll, just before the watches
        // exist, is reported all the same, and a flush asked for meanwhile returns only once it has been.
        struct Flush {
            std::mutex mutex;
            std::condition_variable changed;
            bool done = false, sawRaced = false;
            std::thread thread;
        };
        auto flush = std::make_shared<Flush>();
        auto attempted = std::make_shared<std::atomic<long>>(-1);
        NBFileObserver* flushed = observer.get();
        NBFileEventStream::setPollHook([=](const QString& path, bool resumingWatch) {
            if (!resumingWatch || path != root || *attempted >= 0)
                return;
            if (!treeShrinks)
                NBFileObserver::setWatchLimit(0);
            *attempted = long(eventLog->size());
            {
                QFile raced(root + "/b/raced.txt");
                if (raced.open(QIODevice::WriteOnly))
                    raced.write("raced");
            }
            std::unique_lock lock(flush->mutex);
            flush->thread = std::thread([=] {
                flushed->flushSynchronously();
                const auto events = eventLog->all();
                std::lock_guard guard(flush->mutex);
                flush->sawRaced = std::any_of(events.begin() + attempted->load(), events.end(),
                                              [&](const auto& event) { return event.path() == root + "/b"; });
                flush->done = true;
                flush->changed.notify_all();
            });
            // Long enough for a flush served too early to have returned.
            flush->changed.wait_for(lock, 1s, [&] { return flush->done; });
        });
        if (treeShrinks) {
            ASSERT_TRUE(QDir(root + "/c").removeRecursively());
        }
        EXPECT_TRUE(waitUntil([&] { return *attempted >= 0 && !stream->isPolling(); }));
        std::size_t fromAttempt = std::size_t(std::max(0L, attempted->load()));
        EXPECT_TRUE(eventLog->waitForPath(root + "/b", 0, fromAttempt))
            << qPrintable(describe(eventLog->all()));
        const bool flushReturned = waitUntil([&] {
            std::lock_guard lock(flush->mutex);
            return flush->done;
        });
        EXPECT_TRUE(flushReturned);
        if (!flushReturned)
            observer->tearDown(); // a stopped stream's flush returns
        if (flush->thread.joinable())
            flush->thread.join();
        EXPECT_TRUE(flush->sawRaced);

        // No flood on the way back: only folders that changed, each once.
        waitOutQuietPeriod();
        auto events = eventLog->all();
        QStringList paths;
        for (std::size_t index = fromAttempt; index < events.size(); ++index)
            paths << events[index].path();
        EXPECT_EQ(paths.count(root + "/b"), 1) << qPrintable(describe(events));
        EXPECT_FALSE(paths.contains(root + "/a")) << qPrintable(describe(events));
        EXPECT_EQ(paths.removeDuplicates(), 0) << qPrintable(describe(events));

        // Watching for real: changes come from inotify, also in the folder that had no watch.
        EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), watchesBefore + (treeShrinks ? 3 : 4));
        QString folder = root + (treeShrinks ? "/a" : "/c");
        std::size_t received = eventLog->size();
        writeFile(folder + "/watched.txt");
        EXPECT_TRUE(eventLog->waitForEvent(
            [&](const auto& event) {
                return event.path() == folder && !(event.flags() & kNBFileSystemEventFlagPolled);
            },
            received))
            << qPrintable(describe(eventLog->all()));
        expectIncreasingIdentifiers(eventLog->all());
        NBFileEventStream::setPollHook({});
        NBFileObserver::setWatchLimit(0);
        // Now, not when the delivery thread lets go of the observer: the next case counts watches.
        observer->tearDown();
    }
}

TEST_F(NBFileObserverTest, PollsAndWalksOfLargeTreesDoNotHoldUpOtherStreams) {
    NBMessageCapture capture;
    for (bool polled : {true, false}) {
        SCOPED_TRACE(polled ? "a poll in progress" : "a walk of a folder moved in, in progress");
        QString large = directory.filePath(polled ? "polled" : "arriving");
        QString watched = directory.filePath(polled ? "watched" : "other");
        QString tree = polled ? large : directory.filePath("tree");
        for (int folder = 0; folder < 50; ++folder) {
            QString path = large + QStringLiteral("/folder-%1").arg(folder);
            QDir().mkpath(path);
            for (int file = 0; file < 20; ++file)
                writeFile(path + QStringLiteral("/file-%1.txt").arg(file));
        }
        QDir().mkpath(watched);
        QDir().mkpath(tree);
        auto treeLog = std::make_shared<EventLog>();
        auto treeRecorder = std::make_shared<Recorder>(treeLog);
        auto recorder = std::make_shared<Recorder>(log);
        NBFileObserver::setForcesPolling(polled);
        center.addObserver(treeRecorder, &Recorder::fileSystemEventDidOccur, tree);
        NBFileObserver::setForcesPolling(false);
        center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, watched);

        // Hold the poll of the large tree, or the walk of it after it moved into the watched tree, however
        // long this machine would take for it.
        struct Hold {
            std::mutex mutex;
            std::condition_variable changed;
            bool entered = false, released = false;
        };
        auto hold = std::make_shared<Hold>();
        auto wait = [hold] {
            std::unique_lock lock(hold->mutex);
            hold->entered = true;
            hold->changed.notify_all();
            hold->changed.wait_for(lock, 120s, [&] { return hold->released; });
        };
        QString moved = tree + "/arriving";
        if (polled) {
            NBFileEventStream::setPollHook([=](const QString& path, bool) {
                if (path == large)
                    wait();
            });
            NBFileObserver::setPollingInterval(0.05);
        } else {
            NBFileEventStream::setWalkHook([=](const QString& folder) {
                if (folder == moved)
                    wait();
            });
            ASSERT_TRUE(QDir().rename(large, moved));
        }
        bool entered = false;
        {
            std::unique_lock lock(hold->mutex);
            entered = hold->changed.wait_for(lock, 30s, [&] { return hold->entered; });
        }
        EXPECT_TRUE(entered);

        // Meanwhile another stream's change arrives.
        std::size_t received = log->size();
        writeFile(watched + "/manifest.db");
        EXPECT_TRUE(log->waitForPath(watched, 0, received)) << qPrintable(describe(log->all()));
        {
            std::lock_guard lock(hold->mutex);
            hold->released = true;
            hold->changed.notify_all();
        }
        NBFileEventStream::setPollHook({});
        NBFileEventStream::setWalkHook({});
        // And the large tree is still observed, the moved one with watches on its folders.
        QString inside = (polled ? large : moved) + "/folder-7";
        writeFile(inside + "/new.txt");
        EXPECT_TRUE(treeLog->waitForPath(inside)) << qPrintable(describe(treeLog->all()));
        NBFileObserver::setPollingInterval(kNBFileObserverPollingInterval);
        center.removeObserver(treeRecorder.get());
        center.removeObserver(recorder.get());
    }
}

TEST(NBFileObserverHelpers, SynchronisationTemporariesAreRecognised) {
    const std::pair<const char*, bool> cases[] = {
        {".syncthing.report.pdf.tmp", true},
        {".syncthing..tmp", true},
        {"~syncthing~report.pdf.tmp", true},
        {"~syncthing~", true},
        {".dropbox.cache", true},
        {".syncthing.tmp", false},
        {"syncthing.report.tmp", false},
        {".syncthing.report", false},
        {"report.tmp", false},
        {".dropbox.cache2", false},
        {"manifest.db", false},
        {".dropbox", false},
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(nbIsSynchronisationTemporaryName(QString::fromUtf8(name)), expected) << name;
}

TEST(NBFileObserverHelpers, SnapshotDifferencesAreReportedPerFolder) {
    auto file = [](qint64 size, qint64 time) { return NBFileSnapshotEntry{size, time, false}; };
    auto folder = [] { return NBFileSnapshotEntry{0, 0, true}; };
    const NBFileSnapshot base{{"", folder()}, {"a", folder()}, {"a/x", file(1, 1)}, {"y", file(2, 2)}};
    auto with = [&](const std::function<void(NBFileSnapshot&)>& edit) {
        NBFileSnapshot snapshot = base;
        edit(snapshot);
        return snapshot;
    };
    using Differences = std::vector<std::pair<QString, std::uint32_t>>;
    constexpr std::uint32_t created = kNBFileSystemEventFlagItemCreated,
                            removed = kNBFileSystemEventFlagItemRemoved,
                            modified = kNBFileSystemEventFlagItemModified,
                            isFile = kNBFileSystemEventFlagItemIsFile,
                            isFolder = kNBFileSystemEventFlagItemIsDirectory,
                            root = kNBFileSystemEventFlagRootChanged;
    const struct {
        const char* name;
        NBFileSnapshot after;
        Differences expected;
    } cases[] = {
        {"unchanged", base, {}},
        {"folder time only", with([&](auto& s) { s["a"].modificationTime = 9; }), {}},
        {"file size", with([&](auto& s) { s["a/x"].size = 5; }), {{"a", modified | isFile}}},
        {"file time", with([&](auto& s) { s["y"].modificationTime = 3; }), {{"", modified | isFile}}},
        {"new nested folder",
         with([&](auto& s) {
             s["a/b"] = folder();
             s["a/b/z"] = file(1, 1);
         }),
         {{"a", created | isFolder}, {"a/b", created | isFile}}},
        {"removed and created in one folder",
         with([&](auto& s) {
             s.erase("a/x");
             s["a/w"] = file(1, 1);
         }),
         {{"a", created | removed | isFile}}},
        {"file became folder",
         with([&](auto& s) { s["y"] = folder(); }),
         {{"", created | removed | isFolder}}},
        {"root gone", {}, {{"", removed | root | isFolder | isFile}, {"a", removed | isFile}}},
    };
    for (const auto& testCase : cases)
        EXPECT_EQ(nbFileSnapshotDifferences(base, testCase.after), testCase.expected) << testCase.name;
    EXPECT_EQ(nbFileSnapshotDifferences({}, base).front(),
              (std::pair<QString, std::uint32_t>{"", created | root | isFolder | isFile}));
}

} // namespace
