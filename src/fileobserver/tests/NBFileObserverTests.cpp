// Tests of folder observation: registrations and counts, weakly held observers, no replayed history,
// coalescing of bursts, recursion into new folders, the polling fallback, and the pure helpers.
#include "fileobserver/NBFileSystemEventCenter.h"

#include "foundation/testing/NBMessageCapture.h"
#include "foundation/testing/NBTemporaryDirectory.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

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
    // Waits until the predicate holds for the events received so far; generous timeouts, loaded machines.
    bool waitFor(const std::function<bool(const std::vector<NBFileSystemEvent>&)>& predicate,
                 std::chrono::seconds timeout = 30s) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return predicate(events); });
    }
    bool waitForPath(const QString& path, std::chrono::seconds timeout = 30s) {
        return waitFor(
            [&](const auto& received) {
                return std::any_of(received.begin(), received.end(),
                                   [&](const auto& e) { return e.path() == path; });
            },
            timeout);
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

TEST_F(NBFileObserverTest, FilesInNewSubfoldersAreSeen) {
    auto recorder = std::make_shared<Recorder>(log);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, directory.path());
    NBTemporaryDirectory outside;

    struct Case {
        const char* name;
        std::function<QString()> makeFolder; // returns the new folder holding a file
    };
    const Case cases[] = {
        {"created and filled at once",
         [&] {
             QString folder = directory.filePath("new/deep/er");
             QDir().mkpath(folder);
             writeFile(folder + "/data.csv");
             return folder;
         }},
        {"moved in from outside",
         [&] {
             QDir().mkpath(outside.filePath("moved/inner"));
             writeFile(outside.filePath("moved/inner/data.csv"));
             QString folder = directory.filePath("arrived");
             EXPECT_TRUE(QDir().rename(outside.filePath("moved"), folder));
             return folder + "/inner";
         }},
    };
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        QString folder = testCase.makeFolder();
        EXPECT_TRUE(log->waitForPath(folder)) << qPrintable(describe(log->all()));
        // The new folder is watched from now on: a later file in it is reported too.
        // Let the window that reported the folder close first, so only a watch on it can report the next
        // file.
        waitOutQuietPeriod();
        std::size_t received = log->all().size();
        writeFile(folder + "/later.csv");
        EXPECT_TRUE(log->waitFor([&](const auto& events) {
            return events.size() > received && events.back().path() == folder;
        })) << qPrintable(describe(log->all()));
    }
    expectIncreasingIdentifiers(log->all());
}

TEST_F(NBFileObserverTest, ForcedPollingFallbackStillNoticesChanges) {
    NBMessageCapture capture;
    NBFileObserver::setForcesPolling(true);
    NBFileObserver::setPollingInterval(0.2);
    QDir(directory.path()).mkpath("sub");
    writeFile(directory.filePath("sub/kept.txt"), "one");
    auto recorder = std::make_shared<Recorder>(log);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, directory.path());
    EXPECT_TRUE(capture.contains(
        QStringLiteral("ERROR: could not start FSEventStream for path %1").arg(directory.path())))
        << qPrintable(capture.texts().join('\n'));
    EXPECT_EQ(NBFileEventStream::watchDescriptorCount(), 0u);

    struct Step {
        const char* name;
        std::function<void()> change;
        QString folder;
        std::uint32_t flag;
    };
    const Step steps[] = {
        {"file created", [&] { writeFile(directory.filePath("new.txt")); }, directory.path(),
         kNBFileSystemEventFlagItemCreated},
        {"file modified", [&] { writeFile(directory.filePath("sub/kept.txt"), "two, longer"); },
         directory.filePath("sub"), kNBFileSystemEventFlagItemModified},
        {"folder with a file created",
         [&] {
             QDir(directory.path()).mkpath("sub/fresh");
             writeFile(directory.filePath("sub/fresh/inside.txt"));
         },
         directory.filePath("sub/fresh"), kNBFileSystemEventFlagItemCreated},
        {"file removed", [&] { QFile::remove(directory.filePath("sub/kept.txt")); },
         directory.filePath("sub"), kNBFileSystemEventFlagItemRemoved},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        step.change();
        EXPECT_TRUE(log->waitFor([&](const auto& events) {
            return std::any_of(events.begin(), events.end(), [&](const NBFileSystemEvent& event) {
                return event.path() == step.folder && (event.flags() & step.flag) &&
                       (event.flags() & kNBFileSystemEventFlagPolled);
            });
        })) << qPrintable(describe(log->all()));
    }
    expectIncreasingIdentifiers(log->all());
}

TEST_F(NBFileObserverTest, RemovedRootIsReportedAndItsReturnNoticed) {
    NBMessageCapture capture;
    NBFileObserver::setPollingInterval(0.2);
    QString root = directory.filePath("library");
    QDir().mkpath(root + "/Local");
    auto recorder = std::make_shared<Recorder>(log);
    center.addObserver(recorder, &Recorder::fileSystemEventDidOccur, root);

    ASSERT_TRUE(QDir(root).removeRecursively());
    auto rootChanged = [&](const NBFileSystemEvent& event) {
        return event.path() == root && (event.flags() & kNBFileSystemEventFlagRootChanged);
    };
    ASSERT_TRUE(log->waitFor([&](const auto& events) {
        return std::any_of(events.begin(), events.end(), rootChanged);
    })) << qPrintable(describe(log->all()));
    // Losing the root is reported, not logged as a failure to start.
    EXPECT_FALSE(capture.contains("could not start")) << qPrintable(capture.texts().join('\n'));

    // Another device's sync puts the folder back: the stream, now polling the path, notices.
    std::size_t received = log->all().size();
    QDir().mkpath(root);
    writeFile(root + "/Info.plist");
    EXPECT_TRUE(log->waitFor([&](const auto& events) {
        return events.size() > received && events.back().path() == root &&
               (events.back().flags() & kNBFileSystemEventFlagItemCreated);
    })) << qPrintable(describe(log->all()));
    expectIncreasingIdentifiers(log->all());
}

TEST(NBFileObserverHelpers, EventsStandardizeTheirPathAndDescribeThemselves) {
    QDateTime date(QDate(2026, 11, 21), QTime(20, 30), Qt::UTC);
    NBFileSystemEvent event = NBFileSystemEvent::fileEventWithPath(
        "/library/Local/./device/../Info/", date, 42,
        kNBFileSystemEventFlagItemCreated | kNBFileSystemEventFlagItemIsFile);
    EXPECT_EQ(event.path(), "/library/Local/Info");
    QString description = event.description();
    EXPECT_TRUE(description.startsWith("<NBFileSystemEvent:0x")) << qPrintable(description);
    EXPECT_TRUE(
        description.contains("\npath: /library/Local/Info\ndate: 2026-11-21T20:30:00.000Z\nidentifier: 42\n"))
        << qPrintable(description);
    EXPECT_TRUE(description.endsWith("(ItemCreated|ItemIsFile)")) << qPrintable(description);
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
