// Tests of the dispatch queues: nesting and the queue stack, the deadlock guard, ordering, synchronous
// callers handed a busy queue, the shared pool and its stall watchdog, stopping at exit, the main queue, the
// named timers (on a manual clock) and OAKBlockOperation.
#include "dispatch/OAKDispatchQueue.h"
#include "dispatch/OAKQueue.h"
#include "foundation/testing/NBMessageCapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <semaphore>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Queue = std::shared_ptr<OAKDispatchQueue>;

double realSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Waits for a condition while running the application's event loop (main-queue blocks run from it).
bool waitUntil(const std::function<bool()>& condition, double seconds = 20) {
    const double deadline = realSeconds() + seconds;
    while (!condition()) {
        if (realSeconds() > deadline)
            return false;
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

int threadCount() {
    return int(QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

const QString deadlockText =
    QStringLiteral("Synchronous dispatch can not be executed on the queue with label "
                   "'nested' because it is already part of the current dispatch queue "
                   "hierarchy");

TEST(OAKDispatchQueue, SynchronousDispatchIntoAQueueOfTheStackFollowsTheDeadlockBehaviour) {
    struct Case {
        OAKDeadlockBehavior behavior;
        bool runs;
        QtMsgType messageType; // QtDebugMsg: no message expected
    };
    const Case cases[] = {
        {OAKDeadlockBehaviorExecute, true, QtDebugMsg},
        {OAKDeadlockBehaviorSkip, false, QtDebugMsg},
        {OAKDeadlockBehaviorLog, false, QtWarningMsg},
        {OAKDeadlockBehaviorAssert, false, QtFatalMsg},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.behavior));
        NBMessageCapture capture;
        Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("nested"), c.behavior);
        Queue other = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("other"));
        bool ran = false;
        bool innerIsCurrent = false;
        // Through another queue, so the inner dispatch comes from a different queue of the same stack.
        queue->dispatchSynchronously([&] {
            other->dispatchSynchronously([&] {
                queue->dispatchSynchronously([&] {
                    ran = true;
                    innerIsCurrent = other->isCurrentQueue();
                });
            });
        });
        EXPECT_EQ(ran, c.runs);
        // Behaviour 0 runs the block where it is, without entering the queue again.
        EXPECT_EQ(innerIsCurrent, c.runs);
        if (c.messageType == QtDebugMsg) {
            EXPECT_TRUE(capture.messages().empty()) << capture.texts().join(u'\n').toStdString();
        } else {
            ASSERT_EQ(capture.messages().size(), 1u);
            EXPECT_EQ(capture.messages()[0].type, c.messageType);
            EXPECT_EQ(capture.messages()[0].text, deadlockText);
        }
    }

    // Behaviour 4 does not check: onto the idle main queue from the main thread, the block enters the queue.
    for (OAKDeadlockBehavior behavior : {OAKDeadlockBehaviorExecute, OAKDeadlockBehaviorBlock}) {
        Queue main = OAKDispatchQueue::dispatchQueueWithGCDQueue(OAKQueue::mainQueue(), behavior);
        ASSERT_TRUE(main->isInCurrentQueueStack());
        bool ran = false;
        bool isCurrent = false;
        main->dispatchSynchronously([&] {
            ran = true;
            isCurrent = main->isCurrentQueue();
        });
        EXPECT_TRUE(ran);
        EXPECT_EQ(isCurrent, behavior == OAKDeadlockBehaviorBlock);
    }
}

TEST(OAKDispatchQueue, NestedSynchronousDispatchSeesTheWholeStackButOnlyTheInnermostQueueIsCurrent) {
    Queue a = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("a"));
    Queue b = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("b"));
    Queue c = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("c"));
    auto snapshot = [&] {
        QString result;
        for (const Queue& queue : {a, b, c})
            result += queue->isCurrentQueue() ? u'C' : queue->isInCurrentQueueStack() ? u's' : u'-';
        return result;
    };
    QStringList seen;
    std::atomic<bool> finished = false;
    // Started asynchronously so that the outermost queue runs on a worker, not on the test's thread.
    a->dispatchAsynchronously([&] {
        seen << snapshot();
        b->dispatchSynchronously([&] {
            seen << snapshot();
            c->dispatchSynchronously([&] {
                seen << snapshot();
                // Back into the outermost queue: behaviour 0 runs it here instead of deadlocking.
                a->dispatchSynchronously([&] { seen << snapshot(); });
            });
            seen << snapshot();
        });
        seen << snapshot();
        finished = true;
    });
    ASSERT_TRUE(waitUntil([&] { return finished.load(); }));
    EXPECT_EQ(seen, (QStringList{"C--", "sC-", "ssC", "ssC", "sC-", "C--"}));
    EXPECT_EQ(snapshot(), QStringLiteral("---"));
}

TEST(OAKDispatchQueue, ConcurrentQueuesNeverEnterTheStackAndBarriersWaitForRunningBlocks) {
    Queue serial = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("serial"));
    Queue concurrent = OAKDispatchQueue::sharedConcurrentQueue();

    NBMessageCapture capture;
    std::atomic<int> asyncSawStack = -1;
    bool syncSawSerial = false;
    bool syncSawConcurrent = true;
    serial->dispatchSynchronously([&] {
        concurrent->dispatchAsynchronously([&] { asyncSawStack = serial->isInCurrentQueueStack() ? 1 : 0; });
        // The synchronous block sees the caller's stack; the concurrent queue does not join it, so the check
        // of the stack's last queue after the block reports the caller's stack.
        concurrent->dispatchSynchronously([&] {
            syncSawSerial = serial->isInCurrentQueueStack();
            syncSawConcurrent = concurrent->isInCurrentQueueStack();
        });
        EXPECT_TRUE(serial->isCurrentQueue());
    });
    ASSERT_TRUE(waitUntil([&] { return asyncSawStack.load() >= 0; }));
    EXPECT_EQ(asyncSawStack.load(), 0);
    EXPECT_TRUE(syncSawSerial);
    EXPECT_FALSE(syncSawConcurrent);
    ASSERT_EQ(capture.assertions().size(), 1);
    EXPECT_TRUE(capture.assertions()[0].startsWith(QStringLiteral(
        "The queue stack set after execution of a block should have the parent queue as the last object: "
        "(<OAKDispatchQueue:0x")));
    EXPECT_TRUE(capture.assertions()[0].endsWith(QStringLiteral(">[serial])")));

    // Two blocks run side by side; the barrier waits for both and holds back the block after it.
    Queue queue = OAKDispatchQueue::dispatchQueueWithGCDQueue(OAKQueue::createConcurrentQueue("c"),
                                                              OAKDeadlockBehaviorBlock);
    std::mutex mutex;
    std::vector<QString> events;
    auto record = [&](const QString& event) {
        std::lock_guard lock(mutex);
        events.push_back(event);
    };
    std::atomic<int> started = 0;
    for (int index = 0; index < 2; ++index) {
        queue->dispatchAsynchronously([&, index] {
            ++started;
            // Both must be running at once for this to finish.
            while (started.load() < 2)
                std::this_thread::yield();
            record(QStringLiteral("block%1").arg(index));
        });
    }
    queue->dispatchBarrierAsynchronously([&] { record(QStringLiteral("barrier")); });
    queue->dispatchAsynchronously([&] { record(QStringLiteral("after")); });
    queue->dispatchBarrierSynchronously([&] { record(QStringLiteral("sync barrier")); });
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[2], QStringLiteral("barrier"));
    EXPECT_EQ(events[3], QStringLiteral("after"));
    EXPECT_EQ(events[4], QStringLiteral("sync barrier"));
}

TEST(OAKDispatchQueue, SerialQueueRunsBlocksFromSeveralThreadsOneAtATimeInSubmissionOrder) {
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("fifo"));
    constexpr int producers = 4;
    constexpr int blocksPerProducer = 3000;
    std::vector<int> lastSeen(producers, -1);
    std::atomic<int> inside = 0;
    std::atomic<int> outOfOrder = 0;
    std::atomic<int> overlapping = 0;
    std::atomic<int> completed = 0;
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            for (int sequence = 0; sequence < blocksPerProducer; ++sequence) {
                auto block = [&, producer, sequence] {
                    if (inside.fetch_add(1) != 0)
                        ++overlapping;
                    if (lastSeen[producer] != sequence - 1)
                        ++outOfOrder;
                    lastSeen[producer] = sequence;
                    inside.fetch_sub(1);
                    ++completed;
                };
                // Mix in synchronous dispatches: they must queue up behind the asynchronous ones.
                if (sequence % 100 == 99)
                    queue->dispatchSynchronously(block);
                else
                    queue->dispatchAsynchronously(block);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    ASSERT_TRUE(waitUntil([&] { return completed.load() == producers * blocksPerProducer; }));
    EXPECT_EQ(outOfOrder.load(), 0);
    EXPECT_EQ(overlapping.load(), 0);
}

TEST(OAKDispatchQueue, AThrowingSynchronousBlockReachesItsCallerAndLeavesTheQueueWorking) {
    NBMessageCapture capture;
    Queue outer = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("outer"));
    Queue inner = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("inner"));
    Queue concurrent = OAKDispatchQueue::dispatchQueueWithGCDQueue(OAKQueue::createConcurrentQueue("c"),
                                                                   OAKDeadlockBehaviorBlock);
    auto fail = [] { throw std::runtime_error("block failed"); };
    QString afterThrow;
    outer->dispatchSynchronously([&] {
        EXPECT_THROW(inner->dispatchSynchronously(fail), std::runtime_error);
        // The caller is back on its own queue, with its own stack.
        afterThrow = QStringLiteral("%1%2%3")
                         .arg(outer->isCurrentQueue())
                         .arg(outer->isInCurrentQueueStack())
                         .arg(inner->isInCurrentQueueStack());
    });
    EXPECT_EQ(afterThrow, QStringLiteral("110"));
    EXPECT_THROW(inner->dispatchSynchronously(fail), std::runtime_error);
    EXPECT_FALSE(inner->isCurrentQueue());
    EXPECT_THROW(concurrent->dispatchSynchronously(fail), std::runtime_error);

    // Both queues take further blocks, from other threads too, and barriers are not held back.
    std::atomic<int> ran = 0;
    inner->dispatchAsynchronously([&] { ++ran; });
    outer->dispatchAsynchronously([&] { inner->dispatchSynchronously([&] { ++ran; }); });
    concurrent->dispatchBarrierAsynchronously([&] { ++ran; });
    EXPECT_TRUE(waitUntil([&] { return ran.load() == 3; }));
    EXPECT_TRUE(capture.assertions().empty()) << capture.assertions().join(u'\n').toStdString();
}

TEST(OAKDispatchQueueDeathTest, ABlockThatThrowsWithNobodyWaitingEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto throwFrom = [](bool timer) {
        Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("throwing"));
        OAKBlock fail = [] { throw std::runtime_error("block failed"); };
        if (timer)
            queue->scheduleTimerWithName(QStringLiteral("t"), 0, OAKTimerBehaviorDelay, fail);
        else
            queue->dispatchAsynchronously(fail);
        sleepSeconds(30);
    };
    EXPECT_DEATH(throwFrom(false), "");
    EXPECT_DEATH(throwFrom(true), "");
}

// Dispatches synchronously from a static destructor that runs after the dispatch threads have stopped, onto
// idle serial queues and onto a serial and a concurrent queue that will never be free (the asynchronous
// block queued first is dropped), printing what happens, and exits.
[[noreturn]] void exitDispatchingSynchronouslyAfterTheThreadsStopped() {
    struct LateDispatcher {
        ~LateDispatcher() {
            // Should a dispatch hang, the process ends anyway, with another status.
            std::thread([] {
                sleepSeconds(60);
                std::_Exit(3);
            }).detach();
            nbSetAssertionHandler([](const char*, const QString& message) {
                std::fprintf(stderr, "assertion: %s\n", qPrintable(message));
            });
            Queue serial = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("serial"));
            Queue concurrent = OAKDispatchQueue::dispatchQueueWithGCDQueue(
                OAKQueue::createConcurrentQueue("concurrent"), OAKDeadlockBehaviorBlock);
            for (const Queue& queue : {OAKDispatchQueue::dispatchQueueWithLabel("idle"), serial})
                queue->dispatchSynchronously(
                    [&] { std::fprintf(stderr, "ran on %s\n", qPrintable(queue->label())); });
            serial->dispatchAsynchronously([] {});
            concurrent->dispatchBarrierAsynchronously([] {});
            for (const Queue& queue : {serial, concurrent})
                queue->dispatchSynchronously([&] { std::fprintf(stderr, "late block ran\n"); });
        }
    };
    // Made before the process first uses dispatch (the assertion handler's storage before that), so both
    // are destroyed after the guard that stops the threads.
    nbSetAssertionHandler({});
    static LateDispatcher dispatcher;
    OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("first use"))->dispatchSynchronously([] {});
    std::exit(0);
}

TEST(OAKDispatchQueueDeathTest, SynchronousDispatchAfterTheThreadsStoppedAtExitFailsClearlyInsteadOfHanging) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        exitDispatchingSynchronouslyAfterTheThreadsStopped(), testing::ExitedWithCode(0),
        "ran on idle\nran on serial\n"
        "assertion: Synchronous dispatch can not be executed on the queue with label 'serial' because "
        "the dispatch threads have stopped at process exit\n"
        "assertion: Synchronous dispatch can not be executed on the queue with label 'concurrent' "
        "because the dispatch threads have stopped at process exit\n");
}

TEST(OAKDispatchQueue, AThousandQueuesCostNoThreads) {
    // Warm the pool up first, so that only what the queues themselves cost is measured.
    Queue warm = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("warm"));
    std::atomic<int> done = 0;
    for (int index = 0; index < 8; ++index)
        warm->dispatchAsynchronously([&] { ++done; });
    ASSERT_TRUE(waitUntil([&] { return done.load() == 8; }));
    const int before = threadCount();

    std::vector<Queue> queues;
    for (int index = 0; index < 1000; ++index)
        queues.push_back(OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("queue%1").arg(index)));
    // At most: workers added by earlier tests may retire meanwhile.
    EXPECT_LE(threadCount(), before);
    done = 0;
    for (const Queue& queue : queues)
        queue->dispatchAsynchronously([&] { ++done; });
    ASSERT_TRUE(waitUntil([&] { return done.load() == 1000; }));
    // The pool may grow to the machine's parallelism, far below one thread per queue.
    EXPECT_LT(threadCount() - before, 70);
}

TEST(OAKDispatchQueue, BlocksThatWaitForEachOtherAllRunEvenBeyondThePoolSize) {
    const int count = int(std::clamp(std::thread::hardware_concurrency(), 2u, 32u)) + 4;
    // Each block waits on a lock of its own until all have started: the pool must notice the stall and
    // add threads, or they would wait forever.
    std::mutex mutex;
    std::condition_variable allStarted;
    int started = 0;
    std::atomic<int> finished = 0;
    std::vector<Queue> queues;
    for (int index = 0; index < count; ++index) {
        queues.push_back(OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("waiting%1").arg(index)));
        queues.back()->dispatchAsynchronously([&] {
            std::unique_lock lock(mutex);
            ++started;
            allStarted.notify_all();
            allStarted.wait_for(lock, std::chrono::seconds(60), [&] { return started == count; });
            ++finished;
        });
    }
    ASSERT_TRUE(waitUntil([&] { return finished.load() == count; }, 60));

    // The same through synchronous dispatches: every block waits on one busy queue.
    Queue shared = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("shared"));
    std::atomic<int> arrived = 0;
    std::atomic<int> passed = 0;
    shared->dispatchAsynchronously([&] {
        const double deadline = realSeconds() + 60;
        while (arrived.load() < count && realSeconds() < deadline)
            sleepSeconds(0.001);
    });
    for (const Queue& queue : queues) {
        queue->dispatchAsynchronously([&] {
            ++arrived;
            shared->dispatchSynchronously([&] { ++passed; });
        });
    }
    ASSERT_TRUE(waitUntil([&] { return passed.load() == count; }, 60));
}

// Occupies every thread of the pool with blocks that wait until released, one queue each.
class PoolBlocker {
public:
    explicit PoolBlocker(int count) {
        for (int index = 0; index < count; ++index) {
            queues_.push_back(
                OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("blocked%1").arg(index)));
            queues_.back()->dispatchAsynchronously([this] {
                ++started_;
                std::unique_lock lock(mutex_);
                released_.wait_for(lock, std::chrono::seconds(60), [&] { return release_; });
            });
        }
    }
    ~PoolBlocker() { release(); }
    void release() {
        std::lock_guard lock(mutex_);
        release_ = true;
        released_.notify_all();
    }
    int started() const { return started_.load(); }

private:
    std::vector<Queue> queues_;
    std::atomic<int> started_ = 0;
    std::mutex mutex_;
    std::condition_variable released_;
    bool release_ = false;
};

int poolParallelism() {
    return int(std::clamp(std::thread::hardware_concurrency(), 2u, 32u));
}

TEST(OAKDispatchQueue, StallWatchdogStaysOnWhenWorkArrivesWhileItDecidesToStop) {
    // Every worker is held; the watchdog adds a thread for the last held block, finds the pool idle of
    // tasks and decides to stop watching. Just then another block arrives, asking for the watch again: the
    // watchdog must stay on and add a thread for it, or the block waits forever.
    Queue late = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("late"));
    std::atomic<bool> asked = false;
    std::atomic<bool> ran = false;
    OAKQueue::setPoolCheckHook([&](bool keepWatching) {
        if (!keepWatching && !asked.exchange(true))
            late->dispatchAsynchronously([&] { ran = true; });
    });
    PoolBlocker blocker(poolParallelism() + 2);
    EXPECT_TRUE(waitUntil([&] { return ran.load(); }, 10))
        << "the block that arrived during the check never ran";
    EXPECT_TRUE(asked.load());
    blocker.release();
    OAKQueue::setPoolCheckHook({});
}

// Exits while the timer thread is checking the pool and a timer is due only in a minute; prints nothing
// and exits with 0 when the exit does not wait for that timer.
[[noreturn]] void exitWhileTheTimerThreadChecksThePool() {
    std::thread([] {
        sleepSeconds(20);
        std::_Exit(3); // the exit waited for the timer
    }).detach();
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("later"));
    queue->scheduleTimerWithName(QStringLiteral("in a minute"), 60, OAKTimerBehaviorDelay, [] {});
    auto checking = std::make_shared<std::binary_semaphore>(0);
    auto held = std::make_shared<std::atomic<bool>>(false);
    OAKQueue::setPoolCheckHook([checking, held](bool keepWatching) {
        // The first check that ends the watch: hold the timer thread here while the process exits.
        if (!keepWatching && !held->exchange(true)) {
            checking->release();
            sleepSeconds(0.5);
        }
    });
    // More short blocks than the pool has threads: the watchdog adds one, then ends its watch.
    std::vector<Queue> queues;
    for (int index = 0; index < poolParallelism() + 1; ++index) {
        queues.push_back(OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("short%1").arg(index)));
        queues.back()->dispatchAsynchronously([] { sleepSeconds(0.3); });
    }
    checking->acquire();
    std::exit(0);
}

TEST(OAKDispatchQueueDeathTest, ExitDoesNotWaitForTheNextTimerWhenItComesDuringAPoolCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWhileTheTimerThreadChecksThePool(), testing::ExitedWithCode(0), "");
}

TEST(OAKDispatchQueue, SynchronousCallersWaitingBehindOtherBlocksAreHandedTheQueueAndReturn) {
    // Callers that find the queue busy leave a wake-up record and sleep; whoever finishes before them wakes
    // them. Many such hand-overs, onto a serial queue kept busy and onto a concurrent queue whose barriers
    // hold the others back, each checked for exclusion and completion.
    for (bool concurrent : {false, true}) {
        SCOPED_TRACE(concurrent ? "concurrent" : "serial");
        std::shared_ptr<OAKQueue> queue = concurrent ? OAKQueue::createConcurrentQueue("handover")
                                                     : OAKQueue::createSerialQueue("handover");
        constexpr int threads = 4, calls = 500;
        std::atomic<int> inside = 0, readers = 0, overlaps = 0, completed = 0;
        auto exclusive = [&] {
            if (inside.fetch_add(1) != 0 || readers.load() != 0)
                ++overlaps;
            inside.fetch_sub(1);
            ++completed;
        };
        auto shared = [&] {
            ++readers;
            if (inside.load() != 0)
                ++overlaps;
            --readers;
            ++completed;
        };
        std::vector<std::thread> callers;
        for (int thread = 0; thread < threads; ++thread) {
            callers.emplace_back([&, thread] {
                for (int call = 0; call < calls; ++call) {
                    bool ran = true;
                    if (call % 3 == 0)
                        queue->async(concurrent ? OAKJob(shared) : OAKJob(exclusive));
                    else if (concurrent && (call + thread) % 2 == 0)
                        ran = queue->barrierSync(exclusive);
                    else
                        ran = queue->sync(concurrent ? OAKJob(shared) : OAKJob(exclusive));
                    if (!ran)
                        ++overlaps;
                }
            });
        }
        for (auto& thread : callers)
            thread.join();
        EXPECT_TRUE(waitUntil([&] { return completed.load() == threads * calls; })) << completed.load();
        EXPECT_EQ(overlaps.load(), 0);
    }
}

TEST(OAKDispatchQueue, MainQueueRunsItsBlocksOnTheMainThread) {
    Queue main = OAKDispatchQueue::mainDispatchQueue();
    Queue worker = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("worker"));
    EXPECT_TRUE(main->isInCurrentQueueStack());
    QThread* const mainThread = QThread::currentThread();

    std::atomic<bool> workerSeesMain = true;
    std::atomic<bool> asyncOnMain = false;
    std::atomic<bool> syncOnMain = false;
    std::atomic<bool> finished = false;
    worker->dispatchAsynchronously([&] {
        workerSeesMain = main->isInCurrentQueueStack();
        main->dispatchAsynchronously([&] { asyncOnMain = QThread::currentThread() == mainThread; });
        main->dispatchSynchronously([&] { syncOnMain = main->isCurrentQueue() && OAKQueue::isMainThread(); });
        finished = true;
    });
    ASSERT_TRUE(waitUntil([&] { return finished.load(); }));
    EXPECT_FALSE(workerSeesMain.load());
    EXPECT_TRUE(asyncOnMain.load());
    EXPECT_TRUE(syncOnMain.load());
}

// Moves the timers' clock by hand for one test, so that timer tests check exact times at no real cost.
class ManualClock {
public:
    ManualClock() : start_((OAKTimerClock::setManual(true), OAKTimerClock::now())) {}
    ~ManualClock() { OAKTimerClock::setManual(false); }
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;
    double elapsed() const { return OAKTimerClock::now() - start_; }
    void advanceTo(double seconds) { OAKTimerClock::advance(std::max(0.0, seconds - elapsed())); }

private:
    const double start_;
};

// Timer scenarios, in seconds of the manual clock. Each request names the block it installs; the expected
// firings name the block that runs and when.
struct TimerRequest {
    double at;
    double interval;
    const char* tag;
};
struct ExpectedFiring {
    const char* tag;
    double at;
};
struct TimerScenario {
    const char* name;
    OAKTimerBehavior behavior;
    std::vector<TimerRequest> requests;
    std::vector<ExpectedFiring> firings;
    double queueBusyUntil = 0; // the requests reach the queue only then
};

TEST(OAKDispatchQueue, TimersCoalesceDelayAndThrottleRequestsAndCountTheWaitOnTheirQueue) {
    const TimerScenario scenarios[] = {
        // The earliest due time wins; the block of the latest request is the one that runs.
        {"coalesce", OAKTimerBehaviorCoalesce, {{0, 5, "a"}, {1, 5, "b"}}, {{"b", 5}}},
        {"coalesce sooner", OAKTimerBehaviorCoalesce, {{0, 5, "a"}, {1, 1, "b"}}, {{"b", 2}}},
        {"delay", OAKTimerBehaviorDelay, {{0, 5, "a"}, {4, 5, "b"}}, {{"b", 9}}},
        // The first request fires at once; the next within the interval fires at the first + interval, later
        // requests while it is pending change nothing but the block, and after that firing the interval is
        // measured from it again.
        {"throttle",
         OAKTimerBehaviorThrottle,
         {{0, 3, "a"}, {0.5, 3, "b"}, {1, 3, "c"}, {4, 3, "d"}},
         {{"a", 0}, {"c", 3}, {"d", 6}}},
        // A request that waited on its busy queue longer than its interval fires as soon as the queue is
        // free; one that waited less fires when its interval, counted from the request, is up.
        {"waited longer", OAKTimerBehaviorDelay, {{0, 1.5, "a"}}, {{"a", 2}}, 2},
        {"waited longer, coalesced", OAKTimerBehaviorCoalesce, {{0, 1.5, "a"}}, {{"a", 2}}, 2},
        {"waited shorter", OAKTimerBehaviorDelay, {{0, 3, "a"}}, {{"a", 3}}, 2},
    };
    for (const TimerScenario& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        ManualClock clock;
        Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QString::fromUtf8(scenario.name));
        std::mutex mutex;
        std::vector<std::pair<QString, double>> fired;
        std::binary_semaphore busy{0};
        if (scenario.queueBusyUntil > 0)
            queue->dispatchAsynchronously([&] { busy.acquire(); });
        // Steps of a quarter second: every time in the scenarios is a multiple of it, so each firing is
        // seen at its exact due time and never before.
        std::size_t next = 0;
        for (double at = 0; at <= 10; at += 0.25) {
            clock.advanceTo(at);
            if (scenario.queueBusyUntil > 0 && at == scenario.queueBusyUntil)
                busy.release();
            for (; next < scenario.requests.size() && scenario.requests[next].at == at; ++next) {
                const TimerRequest& request = scenario.requests[next];
                queue->scheduleTimerWithName(QStringLiteral("timer"), request.interval, scenario.behavior,
                                             [&, tag = QString::fromUtf8(request.tag)] {
                                                 std::lock_guard lock(mutex);
                                                 fired.emplace_back(tag, clock.elapsed());
                                             });
            }
            // Let the queue take its requests, the timer thread post what is due now, and the queue run it.
            if (scenario.queueBusyUntil <= at) {
                queue->dispatchSynchronously([] {});
                OAKTimerClock::advance(0);
                queue->dispatchSynchronously([] {});
            }
        }
        EXPECT_EQ(queue->timerCount(), 0u);
        std::vector<std::pair<QString, double>> expected;
        for (const ExpectedFiring& firing : scenario.firings)
            expected.emplace_back(QString::fromUtf8(firing.tag), firing.at);
        std::lock_guard lock(mutex);
        EXPECT_EQ(fired, expected);
    }
}

TEST(OAKDispatchQueue, TimersOnAConcurrentQueueRunTheirStepsOneAtATime) {
    // Many threads schedule, reschedule and cancel timers of one concurrent queue at once, and the timers
    // fire meanwhile: the table must come out whole, every timer firing once and the count back at zero.
    Queue queue = OAKDispatchQueue::dispatchQueueWithGCDQueue(OAKQueue::createConcurrentQueue("timers"),
                                                              OAKDeadlockBehaviorBlock);
    constexpr int threads = 4, timersPerThread = 2000;
    std::atomic<int> fired = 0;
    std::vector<std::thread> schedulers;
    for (int thread = 0; thread < threads; ++thread) {
        schedulers.emplace_back([&, thread] {
            for (int index = 0; index < timersPerThread; ++index) {
                const QString name = QStringLiteral("timer-%1-%2").arg(thread).arg(index);
                queue->scheduleTimerWithName(name, 0.5, OAKTimerBehaviorDelay, [&] { ++fired; });
                queue->cancelTimerWithName(name);
                queue->scheduleTimerWithName(name, 0.001 * (index % 5), OAKTimerBehaviorCoalesce,
                                             [&] { ++fired; });
            }
        });
    }
    for (auto& thread : schedulers)
        thread.join();
    EXPECT_TRUE(waitUntil([&] { return fired.load() == threads * timersPerThread; }))
        << fired.load() << " of " << threads * timersPerThread;
    EXPECT_TRUE(waitUntil([&] { return queue->timerCount() == 0; })) << queue->timerCount();
    sleepSeconds(0.6);
    EXPECT_EQ(fired.load(), threads * timersPerThread);
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& value) { return double(value.tv_sec) + double(value.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

TEST(OAKDispatchQueue, TimerCountFollowsFiringAndCancellingAndFarTimersLeaveTheTimerThreadAsleep) {
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("timers"));
    std::atomic<int> fired = 0;
    queue->scheduleTimerWithName("soon", 0.05, OAKTimerBehaviorDelay, [&] { ++fired; });
    queue->scheduleTimerWithName("late", 60, OAKTimerBehaviorDelay, [&] { ++fired; });
    queue->scheduleTimerWithName("huge", 1e300, OAKTimerBehaviorCoalesce, [&] { ++fired; });
    // (Not throttled: a first throttled request fires at once.)
    queue->scheduleTimerWithName("infinite", std::numeric_limits<double>::infinity(), OAKTimerBehaviorDelay,
                                 [&] { ++fired; });
    queue->dispatchSynchronously([] {});
    EXPECT_GE(queue->timerCount(), 3u);
    ASSERT_TRUE(waitUntil([&] { return fired.load() == 1 && queue->timerCount() == 3; }));
    // A thread spinning on a deadline it cannot represent would use most of a core meanwhile.
    const double cpuBefore = processCpuSeconds();
    sleepSeconds(1);
    EXPECT_LT(processCpuSeconds() - cpuBefore, 0.2);

    queue->cancelTimerWithName("late");
    queue->dispatchSynchronously([] {});
    EXPECT_EQ(queue->timerCount(), 2u);
    queue->cancelAllTimers();
    queue->dispatchSynchronously([] {});
    EXPECT_EQ(queue->timerCount(), 0u);
    // A cancelled timer can be scheduled again.
    queue->scheduleTimerWithName("late", 0.01, OAKTimerBehaviorCoalesce, [&] { ++fired; });
    ASSERT_TRUE(waitUntil([&] { return fired.load() == 2 && queue->timerCount() == 0; }));
}

TEST(OAKBlockOperation, RunsItsBlockOnTheQueueAndWaitsForIt) {
    Queue queue = OAKDispatchQueue::dispatchQueueWithLabel(QStringLiteral("target"));
    std::atomic<bool> onQueue = false;
    bool finished = false;
    auto operation = OAKBlockOperation::dispatchedOperationWithQueue(queue, [&] {
        sleepSeconds(0.05);
        onQueue = queue->isCurrentQueue();
        finished = true;
    });
    operation->waitUntilFinished();
    EXPECT_TRUE(finished);
    EXPECT_TRUE(onQueue.load());
    EXPECT_TRUE(operation->isDone());
}

} // namespace
