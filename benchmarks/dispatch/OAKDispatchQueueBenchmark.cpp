// Speed of the dispatch queues, each figure beside a floor measured in the same run:
// - synchronous dispatch onto an idle serial queue, against locking and unlocking a std::mutex around the
//   same call;
// - asynchronous throughput through one serial queue and across 1,000 queues, against a std::mutex +
//   std::deque producer/consumer pair of threads moving the same blocks;
// - named timers: re-scheduling a pending timer against a plain asynchronous dispatch, and scheduling and
//   firing timers against two asynchronous dispatches per timer (its scheduling step and its firing).
#include "dispatch/OAKDispatchQueue.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Queue = std::shared_ptr<OAKDispatchQueue>;

double secondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void reportAgainstFloor(benchmark::State& state, double nanosecondsPerItem, double floorNanosecondsPerItem) {
    state.counters["ns_per_item"] = nanosecondsPerItem;
    state.counters["floor_ns_per_item"] = floorNanosecondsPerItem;
    state.counters["ratio"] = nanosecondsPerItem / floorNanosecondsPerItem;
}

// A std::mutex + std::deque queue drained by one consumer thread: the least a thread hand-off costs.
double producerConsumerFloorSeconds(int items) {
    std::mutex mutex;
    std::condition_variable available;
    std::deque<std::function<void()>> jobs;
    bool finished = false;
    long counter = 0;
    return secondsOf([&] {
        std::thread consumer([&] {
            std::unique_lock lock(mutex);
            for (;;) {
                if (jobs.empty()) {
                    if (finished)
                        return;
                    available.wait(lock);
                    continue;
                }
                auto job = std::move(jobs.front());
                jobs.pop_front();
                lock.unlock();
                job();
                lock.lock();
            }
        });
        for (int index = 0; index < items; ++index) {
            std::lock_guard lock(mutex);
            jobs.push_back([&counter] { benchmark::DoNotOptimize(++counter); });
            available.notify_one();
        }
        {
            std::lock_guard lock(mutex);
            finished = true;
            available.notify_one();
        }
        consumer.join();
    });
}

void BM_SynchronousDispatchOntoIdleSerialQueue(benchmark::State& state) {
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("bench.sync"));
    long counter = 0;
    const OAKBlock block = [&counter] { benchmark::DoNotOptimize(++counter); };
    constexpr int floorCalls = 1'000'000;
    std::mutex mutex;
    const double floorSeconds = secondsOf([&] {
        for (int index = 0; index < floorCalls; ++index) {
            std::lock_guard lock(mutex);
            block();
        }
    });
    long calls = 0;
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        queue->dispatchSynchronously(block);
        ++calls;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    reportAgainstFloor(state, seconds * 1e9 / double(calls), floorSeconds * 1e9 / floorCalls);
}
BENCHMARK(BM_SynchronousDispatchOntoIdleSerialQueue);

void BM_AsynchronousThroughputOneSerialQueue(benchmark::State& state) {
    const int blocks = int(state.range(0));
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("bench.async"));
    long counter = 0;
    double seconds = 0;
    for (auto _ : state) {
        seconds += secondsOf([&] {
            for (int index = 0; index < blocks; ++index)
                queue->dispatchAsynchronously([&counter] { benchmark::DoNotOptimize(++counter); });
            queue->dispatchSynchronously([] {});
        });
    }
    const double floorSeconds = producerConsumerFloorSeconds(blocks);
    const double perBlock = seconds * 1e9 / (double(blocks) * double(state.iterations()));
    reportAgainstFloor(state, perBlock, floorSeconds * 1e9 / blocks);
    state.counters["blocks_per_s"] = 1e9 / perBlock;
    state.SetItemsProcessed(state.iterations() * blocks);
}
BENCHMARK(BM_AsynchronousThroughputOneSerialQueue)
    ->Arg(200'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_AsynchronousThroughputThousandQueues(benchmark::State& state) {
    constexpr int queueCount = 1000;
    constexpr int blocksPerQueue = 200;
    std::vector<Queue> queues;
    for (int index = 0; index < queueCount; ++index)
        queues.push_back(
            OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("bench.many.%1").arg(index)));
    std::atomic<long> counter = 0;
    double seconds = 0;
    for (auto _ : state) {
        seconds += secondsOf([&] {
            for (int round = 0; round < blocksPerQueue; ++round) {
                for (const Queue& queue : queues)
                    queue->dispatchAsynchronously(
                        [&counter] { counter.fetch_add(1, std::memory_order_relaxed); });
            }
            for (const Queue& queue : queues)
                queue->dispatchSynchronously([] {});
        });
    }
    const int blocks = queueCount * blocksPerQueue;
    const double floorSeconds = producerConsumerFloorSeconds(blocks);
    const double perBlock = seconds * 1e9 / (double(blocks) * double(state.iterations()));
    reportAgainstFloor(state, perBlock, floorSeconds * 1e9 / blocks);
    state.counters["blocks_per_s"] = 1e9 / perBlock;
    state.SetItemsProcessed(state.iterations() * blocks);
}
BENCHMARK(BM_AsynchronousThroughputThousandQueues)->Unit(benchmark::kMillisecond)->UseRealTime();

// Re-scheduling a pending delay timer (what every edit of a store does for its save timer).
void BM_TimerRescheduling(benchmark::State& state) {
    constexpr int requests = 100'000;
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("bench.timer"));
    double seconds = 0;
    for (auto _ : state) {
        seconds += secondsOf([&] {
            for (int index = 0; index < requests; ++index)
                queue->scheduleTimerWithName(QStringLiteral("save"), 60, OAKTimerBehaviorDelay, [] {});
            queue->dispatchSynchronously([] {});
        });
        queue->cancelAllTimers();
    }
    const double floorSeconds = secondsOf([&] {
        for (int index = 0; index < requests; ++index)
            queue->dispatchAsynchronously([] {});
        queue->dispatchSynchronously([] {});
    });
    reportAgainstFloor(state, seconds * 1e9 / (double(requests) * double(state.iterations())),
                       floorSeconds * 1e9 / requests);
}
BENCHMARK(BM_TimerRescheduling)->Unit(benchmark::kMillisecond)->UseRealTime();

// Scheduling distinct timers due at once and waiting for all of them to fire.
void BM_TimerSchedulingAndFiring(benchmark::State& state) {
    constexpr int timers = 5000;
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("bench.firing"));
    std::vector<QString> names;
    for (int index = 0; index < timers; ++index)
        names.push_back(QStringLiteral("timer%1").arg(index));
    std::atomic<int> fired = 0;
    double seconds = 0;
    for (auto _ : state) {
        fired = 0;
        seconds += secondsOf([&] {
            for (const QString& name : names)
                queue->scheduleTimerWithName(name, 0, OAKTimerBehaviorCoalesce, [&fired] { ++fired; });
            while (fired.load() < timers)
                std::this_thread::yield();
        });
    }
    std::atomic<int> done = 0;
    const double floorSeconds = secondsOf([&] {
        for (int index = 0; index < 2 * timers; ++index)
            queue->dispatchAsynchronously([&done] { ++done; });
        while (done.load() < 2 * timers)
            std::this_thread::yield();
    });
    reportAgainstFloor(state, seconds * 1e9 / (double(timers) * double(state.iterations())),
                       floorSeconds * 1e9 / timers);
}
BENCHMARK(BM_TimerSchedulingAndFiring)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
