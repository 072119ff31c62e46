// Cost of folder observation, each figure beside a floor measured in the same run:
// - memory (resident set from /proc/self/status) and threads (/proc/self/task) used by 1,000 observed
//   folders, and the time to start observing them, against the same 1,000 folders watched with bare
//   inotify_add_watch calls on an inotify instance of the benchmark's own;
// - latency from a write to the observer's call, against the configured coalescing latency (the floor: the
//   stream deliberately holds a change that long), at a short latency and at the real one;
// - the number of calls for a burst of 10,000 new files in one folder, against the one folder that changed;
// - latency from a write to the observer's call while a tree of 50,000 files is polled without pause,
//   against the configured latency and against the same latency with nothing polled; beside it, what one
//   poll of that tree costs (a poll that ran on the delivery thread would add up to that much).
#include "dispatch/OAKDispatchQueue.h"
#include "fileobserver/NBFileSystemEventCenter.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include <dirent.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

class CallCounter {
public:
    void fileSystemEventDidOccur(const NBFileSystemEvent&) {
        std::lock_guard lock(mutex_);
        ++calls_;
        lastCall_ = Clock::now();
        changed_.notify_all();
    }
    int calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    // Waits for the call after `previous` calls; returns when it arrived.
    Clock::time_point waitForCall(int previous) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return calls_ > previous; });
        return lastCall_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int calls_ = 0;
    Clock::time_point lastCall_;
};

void writeFile(const QString& path) {
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write("sample");
}

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return 0;
}

int threadCount() {
    int count = 0;
    if (DIR* tasks = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(tasks))
            if (entry->d_name[0] != '.')
                ++count;
        closedir(tasks);
    }
    return count;
}

// Starts the dispatch threads the way a running application already has them: the thread figure below then
// counts only what observing folders adds.
void startDispatchThreads() {
    std::vector<std::shared_ptr<OAKDispatchQueue>> queues;
    std::atomic<int> done = 0;
    for (int index = 0; index < 4; ++index) {
        queues.push_back(OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("warm-up")));
        queues.back()->dispatchAsynchronously([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            ++done;
        });
    }
    queues.back()->scheduleTimerWithName(QStringLiteral("warm-up"), 0, OAKTimerBehaviorDelay,
                                         [&] { ++done; });
    while (done.load() < 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// Runs first, so that the thread figure includes the delivery thread and queues the module starts.
void BM_ObserveThousandFolders(benchmark::State& state) {
    startDispatchThreads();
    constexpr int folderCount = 1000;
    QTemporaryDir root;
    QStringList folders;
    for (int index = 0; index < folderCount; ++index) {
        folders << root.filePath(QStringLiteral("bucket-%1/Manifests").arg(index));
        QDir().mkpath(folders.back());
        writeFile(folders.back() + "/manifest.db");
    }
    auto& center = NBFileSystemEventCenter::defaultCenter();
    double seconds = 0, floorSeconds = 0;
    long residentDelta = 0, floorResidentDelta = 0;
    int threadDelta = 0;
    bool firstRound = true;
    for (auto _ : state) {
        // Floor: the same folders watched directly.
        long residentBefore = residentKilobytes();
        auto start = Clock::now();
        int descriptor = inotify_init1(IN_CLOEXEC);
        for (const QString& folder : folders)
            inotify_add_watch(descriptor, QFile::encodeName(folder).constData(),
                              IN_CREATE | IN_MODIFY | IN_DELETE);
        floorSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        if (firstRound)
            floorResidentDelta = residentKilobytes() - residentBefore;
        close(descriptor);

        std::vector<std::shared_ptr<CallCounter>> observers;
        observers.reserve(folderCount);
        residentBefore = residentKilobytes();
        int threadsBefore = threadCount();
        start = Clock::now();
        for (const QString& folder : folders) {
            observers.push_back(std::make_shared<CallCounter>());
            center.addObserver(observers.back(), &CallCounter::fileSystemEventDidOccur, folder);
        }
        benchmark::DoNotOptimize(center.fileObserverCount());
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
        // Memory and threads are taken from the first (cold) round: later rounds reuse what it allocated,
        // and the module's threads exist by then.
        if (firstRound) {
            residentDelta = residentKilobytes() - residentBefore;
            threadDelta = threadCount() - threadsBefore;
        }
        center.resetMapTable();
        firstRound = false;
    }
    double iterations = double(state.iterations());
    state.counters["ms_to_observe"] = 1000 * seconds / iterations;
    state.counters["floor_ms_inotify_add_watch"] = 1000 * floorSeconds / iterations;
    state.counters["ratio"] = seconds / floorSeconds;
    state.counters["rss_kb_added"] = double(residentDelta);
    state.counters["floor_rss_kb_added"] = double(floorResidentDelta);
    state.counters["bytes_per_folder"] = 1024.0 * double(residentDelta) / folderCount;
    state.counters["threads_added"] = threadDelta;
    state.counters["floor_threads_added"] = 0;
}
BENCHMARK(BM_ObserveThousandFolders)->Iterations(3)->Unit(benchmark::kMillisecond);

// Argument: the coalescing latency in milliseconds.
void BM_WriteToCallLatency(benchmark::State& state) {
    double latency = double(state.range(0)) / 1000.0;
    NBFileObserver::setCoalescingLatency(latency);
    QTemporaryDir root;
    auto counter = std::make_shared<CallCounter>();
    auto& center = NBFileSystemEventCenter::defaultCenter();
    center.addObserver(counter, &CallCounter::fileSystemEventDidOccur, root.path());
    double total = 0;
    int index = 0;
    for (auto _ : state) {
        int previous = counter->calls();
        auto start = Clock::now();
        writeFile(root.filePath(QStringLiteral("file-%1").arg(index++)));
        auto arrived = counter->waitForCall(previous);
        double seconds = std::chrono::duration<double>(arrived - start).count();
        state.SetIterationTime(seconds);
        total += seconds;
    }
    center.removeObserver(counter.get());
    NBFileObserver::setCoalescingLatency(kNBFileObserverLatency);
    double mean = total / double(state.iterations());
    state.counters["latency_ms"] = 1000 * mean;
    state.counters["floor_configured_latency_ms"] = 1000 * latency;
    state.counters["ratio"] = mean / latency;
    state.counters["overhead_ms"] = 1000 * (mean - latency);
}
BENCHMARK(BM_WriteToCallLatency)->Arg(100)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteToCallLatency)
    ->Arg(int(kNBFileObserverLatency * 1000))
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// A synchronisation client dropping 10,000 files into one folder, at the real latency.
void BM_CallsForBurstOfTenThousandFiles(benchmark::State& state) {
    constexpr int fileCount = 10000;
    auto& center = NBFileSystemEventCenter::defaultCenter();
    int calls = 0;
    double writeSeconds = 0;
    for (auto _ : state) {
        QTemporaryDir root;
        auto counter = std::make_shared<CallCounter>();
        center.addObserver(counter, &CallCounter::fileSystemEventDidOccur, root.path());
        auto start = Clock::now();
        for (int index = 0; index < fileCount; ++index)
            writeFile(root.filePath(QStringLiteral("file-%1.txt").arg(index)));
        writeSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        counter->waitForCall(0);
        // Every call still to come arrives within one more window.
        std::this_thread::sleep_for(std::chrono::duration<double>(2 * kNBFileObserverLatency + 1));
        calls += counter->calls();
        center.removeObserver(counter.get());
    }
    double iterations = double(state.iterations());
    state.counters["calls"] = calls / iterations;
    state.counters["files"] = fileCount;
    state.counters["floor_calls_changed_folders"] = 1;
    state.counters["ratio"] = calls / iterations;
    state.counters["write_s"] = writeSeconds / iterations;
}
BENCHMARK(BM_CallsForBurstOfTenThousandFiles)->Iterations(2)->Unit(benchmark::kSecond);

// A stream that fell back to polling a large tree, polled as often as the engine allows, beside a watched
// folder whose writes are timed.
void BM_WriteToCallLatencyWhileLargeTreeIsPolled(benchmark::State& state) {
    constexpr int folderCount = 1000, filesPerFolder = 50;
    constexpr double latency = 0.1;
    QTemporaryDir polled, watched;
    for (int folder = 0; folder < folderCount; ++folder) {
        QString path = polled.filePath(QStringLiteral("folder-%1").arg(folder));
        QDir().mkpath(path);
        for (int file = 0; file < filesPerFolder; ++file)
            writeFile(path + QStringLiteral("/file-%1").arg(file));
    }
    auto start = Clock::now();
    NBFileSnapshot snapshot = nbFileSnapshotOfPath(polled.path());
    double pollSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    benchmark::DoNotOptimize(snapshot.size());

    NBFileObserver::setCoalescingLatency(latency);
    auto& center = NBFileSystemEventCenter::defaultCenter();
    auto counter = std::make_shared<CallCounter>();
    center.addObserver(counter, &CallCounter::fileSystemEventDidOccur, watched.path());
    int index = 0;
    auto measureWrite = [&] {
        int previous = counter->calls();
        auto written = Clock::now();
        writeFile(watched.filePath(QStringLiteral("file-%1").arg(index++)));
        return std::chrono::duration<double>(counter->waitForCall(previous) - written).count();
    };
    // The same writes with nothing polled, measured first.
    double quietTotal = 0;
    constexpr int quietWrites = 10;
    for (int write = 0; write < quietWrites; ++write)
        quietTotal += measureWrite();

    NBFileObserver::setForcesPolling(true);
    NBFileObserver::setPollingInterval(0.05);
    auto polledCounter = std::make_shared<CallCounter>();
    center.addObserver(polledCounter, &CallCounter::fileSystemEventDidOccur, polled.path());
    NBFileObserver::setForcesPolling(false);
    double total = 0;
    for (auto _ : state) {
        double seconds = measureWrite();
        state.SetIterationTime(seconds);
        total += seconds;
    }
    center.removeObserver(polledCounter.get());
    center.removeObserver(counter.get());
    NBFileObserver::setPollingInterval(kNBFileObserverPollingInterval);
    NBFileObserver::setCoalescingLatency(kNBFileObserverLatency);
    double mean = total / double(state.iterations());
    state.counters["latency_ms"] = 1000 * mean;
    state.counters["floor_configured_latency_ms"] = 1000 * latency;
    state.counters["ratio"] = mean / latency;
    state.counters["latency_nothing_polled_ms"] = 1000 * quietTotal / quietWrites;
    state.counters["one_poll_ms"] = 1000 * pollSeconds;
    state.counters["polled_files"] = double(snapshot.size());
}
BENCHMARK(BM_WriteToCallLatencyWhileLargeTreeIsPolled)
    ->Iterations(20)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
