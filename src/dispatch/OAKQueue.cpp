// The low-level queues, the shared worker pool, the main-thread binding and the timer thread.
//
// Design
// ------
// Shared pool. A serial queue must not cost an OS thread of its own: a library keeps many stores open, each
// with three or four queues. Every queue is therefore only a FIFO of jobs (OAKQueue::items_) plus a little
// state, and all queues share one pool of worker threads (WorkerPool). The pool keeps a FIFO of tasks; a
// task is either "drain this serial queue" or "run this one block of this concurrent queue". The pool
// starts threads lazily, up to the machine's parallelism (at least two, at most 32), so creating 1,000 queues
// costs no thread and running work on them costs at most the pool.
//
// Serial queues. A serial queue is "owned" by at most one party at a time: a worker draining it, or a
// synchronous caller running its block. Enqueuing onto an unowned queue takes ownership and hands one
// drain task to the pool. A worker drains up to 64 blocks in a row and then puts the queue back at the end
// of the pool's FIFO, so a busy queue cannot starve the others. Blocks of one queue thus run one at a time,
// in submission order, possibly on different threads over time.
//
// Synchronous dispatch runs its block on the calling thread, which saves two thread switches per call: on an
// idle queue the caller takes ownership at once and runs the block inline (two uncontended mutex round
// trips); on a busy queue it enqueues a waiter record and sleeps on a semaphore. When the drain reaches the
// waiter it hands ownership over (the worker leaves the queue owned and returns to the pool) and the caller
// runs its block, then hands the queue on. The one exception is the main queue called from another thread:
// its blocks must run on the main thread, so the block is enqueued as an ordinary job and the caller waits
// for it.
//
// Concurrent queues keep in their FIFO only what cannot start yet. A block starts when no barrier runs;
// a barrier starts when nothing runs and then holds back everything after it.
//
// Blocking workers. A worker that blocks in a synchronous dispatch tells the pool, which then may start
// another thread so that the queue being waited for can still make progress. Blocking the pool cannot see (a
// block that sleeps or waits on a lock of its own) is caught by a watchdog on the timer thread: when tasks
// have waited 50 ms without any worker taking one, it starts one more thread. Threads above the parallelism
// retire after 10 s without work; the pool never exceeds 64 threads.
//
// Per-thread execution frames. The queue-specific values live in thread-local state. Every execution of
// blocks on a queue (inline for a synchronous dispatch, on a worker or the main thread for an asynchronous
// one) opens a frame on the running thread: the queue, whose context pointer is the wrapping OAKDispatchQueue
// (the value under OAKIsCurrentKey), and one slot that starts empty and is dropped when the execution ends
// (the value under OAKQueueStackKey, which OAKDispatchQueue sets while its bookkeeping runs). The previous
// frame is restored afterwards, so nested synchronous dispatches see exactly the innermost queue, and a
// thread outside any queue sees nothing.
//
// Main queue. A command-line program has no platform main thread, so one thread stands for it and the
// main queue is a serial queue bound to that thread. If a QCoreApplication exists when the main queue is
// first used, that is the application's thread and the queue's drains are posted to it with
// QMetaObject::invokeMethod(qApp, ..., Qt::QueuedConnection), so its blocks run from the application's
// event loop (a program that never runs the loop never runs main-queue blocks).
// Otherwise a dedicated process-wide thread stands for the main thread. The binding is made once and
// does not change later. OAKQueue::isMainThread() is true exactly on that thread.
//
// Timer thread. One thread serves every timer source: it keeps the armed sources ordered by due time
// (OAKTimerClock: monotonic seconds, or a manual clock in tests) and sleeps until the earliest. When a
// source is due it posts the source's firing onto the source's queue (as a barrier on a concurrent queue);
// the firing runs the handler there unless the source was cancelled or set again in the meantime. The
// thread starts on first use. With the manual clock it sleeps until the clock is moved, then posts what is
// due and tells the mover so.
//
// Exceptions. A synchronous dispatch whose block throws hands the exception to its caller, after the queue
// has been handed on (the frame restored, ownership or the concurrent slot released), so the queue keeps
// working. A block that nobody waits for (an asynchronous block, a barrier, a timer handler, a block run on
// the main thread for another thread) has nowhere to send an exception: it ends the process through
// std::terminate, on purpose and at once, rather than leaving its queue owned forever.
//
// Shutdown. The pool, the timer thread and the main-thread binding live in one runtime object that is
// created on first use and deliberately never freed (it stays reachable from a static pointer). A static
// guard created with it stops the threads at process exit: the timer thread and the dedicated main thread
// are joined; workers finish the block they are running and leave without taking more, and are joined if
// they do so within two seconds (a worker stuck in a block that never returns is detached instead, which
// is safe because nothing it touches is ever freed). Blocks still queued at exit are not run, and blocks
// dispatched asynchronously afterwards (from a static destructor, say) are dropped at once, with what they
// hold. A synchronous dispatch made afterwards runs its block inline when the queue is free at once, as
// always; when it is not (a block was queued or dropped before it, a stuck worker owns the queue, the main
// queue is called from another thread), nothing will ever hand the queue over, so instead of waiting
// forever it returns without running the block and OAKDispatchQueue reports this as an assertion.
#include "dispatch/OAKQueue.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <semaphore>
#include <thread>
#include <vector>

class OAKQueueExecutor {
public:
    virtual ~OAKQueueExecutor() = default;
    // Calls queue->runFromExecutor(job, barrier) soon on one of the executor's threads.
    virtual void submit(std::shared_ptr<OAKQueue> queue, OAKJob job, bool barrier) = 0;
};

struct OAKQueue::Waiter {
    std::binary_semaphore semaphore{0};
};

namespace {

using Clock = std::chrono::steady_clock;

struct Frame {
    OAKQueue* queue = nullptr;
    void* slot = nullptr;
};

thread_local Frame currentFrame;
// 1 on pool workers, 2 on the timer thread, 3 on the dedicated main thread, 0 elsewhere.
thread_local int threadRole = 0;
// Cached answer of OAKQueue::isMainThread(): -1 unknown, 0 no, 1 yes.
thread_local int mainThreadState = -1;

// The manual clock of tests (see OAKTimerClock): while it is on, its reading is the time.
std::atomic<bool> manualClock{false};
std::atomic<double> manualClockSeconds{0};

double nowSeconds() {
    if (manualClock.load(std::memory_order_acquire))
        return manualClockSeconds.load(std::memory_order_acquire);
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

struct PoolCheckHook {
    std::mutex mutex;
    std::function<void(bool)> hook;
};

PoolCheckHook& poolCheckHook() {
    // Never freed: the timer thread may call it while the process exits.
    static auto* const shared = new PoolCheckHook;
    return *shared;
}

void runPoolCheckHook(bool keepWatching) {
    std::function<void(bool)> hook;
    {
        std::lock_guard lock(poolCheckHook().mutex);
        hook = poolCheckHook().hook;
    }
    if (hook)
        hook(keepWatching);
}

Clock::time_point timePointForSeconds(double seconds) {
    return Clock::time_point(
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
}

} // namespace

class OAKTimerThread;

namespace {

// The shared worker threads (see the design above).
class WorkerPool final : public OAKQueueExecutor {
public:
    explicit WorkerPool(OAKTimerThread& timers)
        : parallelism_(std::clamp(std::thread::hardware_concurrency(), 2u, 32u)), timers_(timers) {}

    void submit(std::shared_ptr<OAKQueue> queue, OAKJob job, bool barrier) override {
        bool pokeWatchdog = false;
        {
            std::lock_guard lock(mutex_);
            if (stopping_)
                return;
            tasks_.push_back(Task{std::move(queue), std::move(job), barrier});
            if (idle_ > wakeups_) {
                ++wakeups_;
                workAvailable_.notify_one();
            } else if (threadCount_ - blocked_ < parallelism_ && threadCount_ < maximumThreads) {
                spawnLocked();
            } else if (!watched_) {
                watched_ = true;
                pokeWatchdog = true;
            }
        }
        if (pokeWatchdog)
            startWatching();
    }

    // A worker is about to wait for a queue: let another thread take its place if work is waiting.
    void willBlock() {
        std::lock_guard lock(mutex_);
        ++blocked_;
        if (!tasks_.empty() && idle_ <= wakeups_ && threadCount_ - blocked_ < parallelism_ &&
            threadCount_ < maximumThreads)
            spawnLocked();
    }
    void didUnblock() {
        std::lock_guard lock(mutex_);
        --blocked_;
    }

    // Called by the watchdog; returns whether it should keep watching.
    bool checkStall() {
        std::lock_guard lock(mutex_);
        if (tasks_.empty() || stopping_) {
            watched_ = false;
            return false;
        }
        const auto now = Clock::now();
        if (now - lastProgress_ > std::chrono::milliseconds(50) && idle_ <= wakeups_ &&
            threadCount_ < maximumThreads) {
            spawnLocked();
            lastProgress_ = now;
        }
        return true;
    }

    // Stops the workers at process exit (see the design above).
    void shutdown() {
        std::vector<std::thread> toJoin;
        {
            std::unique_lock lock(mutex_);
            stopping_ = true;
            workAvailable_.notify_all();
            threadsExited_.wait_for(lock, std::chrono::seconds(2), [this] { return threadCount_ == 0; });
            for (auto& [id, thread] : threads_)
                thread.detach();
            threads_.clear();
            toJoin = std::move(finished_);
            finished_.clear();
        }
        for (auto& thread : toJoin)
            thread.join();
    }

    bool isWorkerThread() const { return threadRole == 1; }

private:
    struct Task {
        std::shared_ptr<OAKQueue> queue;
        OAKJob job;
        bool barrier = false;
    };

    void startWatching();

    void spawnLocked() {
        ++threadCount_;
        lastProgress_ = Clock::now();
        std::thread thread([this] { workerMain(); });
        threads_.emplace(thread.get_id(), std::move(thread));
        // Join the threads that retired since the last spawn; they have left workerMain already.
        for (auto& retired : finished_)
            retired.join();
        finished_.clear();
    }

    void workerMain() {
        threadRole = 1;
        mainThreadState = 0;
        pthread_setname_np(pthread_self(), "OAKWorker");
        std::unique_lock lock(mutex_);
        for (;;) {
            if (!tasks_.empty() && !stopping_) {
                Task task = std::move(tasks_.front());
                tasks_.pop_front();
                lastProgress_ = Clock::now();
                lock.unlock();
                task.queue->runFromExecutor(task.job, task.barrier);
                task = Task{};
                lock.lock();
                continue;
            }
            if (stopping_)
                break;
            ++idle_;
            const bool timedOut =
                workAvailable_.wait_for(lock, std::chrono::seconds(10)) == std::cv_status::timeout;
            --idle_;
            if (wakeups_ > 0)
                --wakeups_;
            if (timedOut && tasks_.empty() && threadCount_ > parallelism_)
                break;
        }
        --threadCount_;
        auto self = threads_.find(std::this_thread::get_id());
        if (self != threads_.end()) {
            finished_.push_back(std::move(self->second));
            threads_.erase(self);
        }
        threadsExited_.notify_all();
    }

    static constexpr unsigned maximumThreads = 64;
    const unsigned parallelism_;
    OAKTimerThread& timers_;

    std::mutex mutex_;
    std::condition_variable workAvailable_;
    std::condition_variable threadsExited_;
    std::deque<Task> tasks_;
    std::map<std::thread::id, std::thread> threads_;
    std::vector<std::thread> finished_;
    unsigned threadCount_ = 0;
    unsigned idle_ = 0;
    unsigned wakeups_ = 0;
    unsigned blocked_ = 0;
    bool watched_ = false;
    bool stopping_ = false;
    Clock::time_point lastProgress_ = Clock::now();
};

} // namespace

// The one thread that serves every timer source, and the pool's watchdog.
class OAKTimerThread {
public:
    void setPool(WorkerPool* pool) { pool_ = pool; }

    std::mutex& mutex() { return mutex_; }

    // Both with mutex() held.
    void armLocked(const std::shared_ptr<OAKTimerSource>& source, double due,
                   std::multimap<double, std::weak_ptr<OAKTimerSource>>::iterator& position, bool& armed) {
        if (armed)
            schedule_.erase(position);
        position = schedule_.emplace(due, source);
        armed = true;
        startLocked();
        if (position == schedule_.begin())
            wake_.notify_one();
    }
    void disarmLocked(std::multimap<double, std::weak_ptr<OAKTimerSource>>::iterator& position, bool& armed) {
        if (armed)
            schedule_.erase(position);
        armed = false;
    }

    void watchPool() {
        std::lock_guard lock(mutex_);
        watchingPool_ = true;
        ++watchRequests_;
        startLocked();
        wake_.notify_one();
    }

    void shutdown() {
        std::thread thread;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            wake_.notify_one();
            advanced_.notify_all();
            thread = std::move(thread_);
        }
        if (thread.joinable())
            thread.join();
    }

    // Moves the manual clock and waits until the thread has posted what became due.
    void advanceManualClock(double seconds) {
        std::unique_lock lock(mutex_);
        manualClockSeconds.store(manualClockSeconds.load() + std::max(0.0, seconds));
        const unsigned long long advance = ++advances_;
        startLocked();
        wake_.notify_one();
        advanced_.wait(lock, [&] { return advancesServed_ >= advance || stopping_; });
    }

    using Firing = std::pair<std::shared_ptr<OAKTimerSource>, unsigned long long>;
    // Implemented after OAKTimerSource's members are reachable (friend of OAKTimerSource).
    static void collectDue(std::multimap<double, std::weak_ptr<OAKTimerSource>>& schedule, double now,
                           std::vector<Firing>& due);
    static void post(const Firing& firing);

private:
    void startLocked() {
        if (!thread_.joinable() && !stopping_)
            thread_ = std::thread([this] { threadMain(); });
    }

    void threadMain() {
        threadRole = 2;
        mainThreadState = 0;
        pthread_setname_np(pthread_self(), "OAKTimer");
        std::unique_lock lock(mutex_);
        std::vector<Firing> due;
        while (!stopping_) {
            const unsigned long long advances = advances_;
            collectDue(schedule_, nowSeconds(), due);
            if (!due.empty()) {
                lock.unlock();
                for (const auto& firing : due)
                    post(firing);
                due.clear();
                lock.lock();
                continue;
            }
            if (advancesServed_ != advances) {
                advancesServed_ = advances;
                advanced_.notify_all();
            }
            if (watchingPool_) {
                // A request to watch that arrives while the pool is being checked must not be lost: the
                // pool only asks again once the watch it asked for has ended.
                const unsigned long long requests = watchRequests_;
                lock.unlock();
                const bool keepWatching = pool_->checkStall();
                runPoolCheckHook(keepWatching);
                lock.lock();
                if (!keepWatching && watchRequests_ == requests)
                    watchingPool_ = false;
                // Shutdown may have been asked for while the lock was released; its wake-up is gone, and
                // waiting now would hold up the exit until the next timer is due (a minute, for a store).
                if (stopping_)
                    break;
            }
            std::optional<Clock::time_point> deadline;
            // A manual clock moves only through advance(), which wakes the thread.
            if (!schedule_.empty() && !manualClock.load())
                deadline = timePointForSeconds(schedule_.begin()->first);
            if (watchingPool_) {
                const auto check = Clock::now() + std::chrono::milliseconds(25);
                deadline = deadline ? std::min(*deadline, check) : check;
            }
            if (deadline)
                wake_.wait_until(lock, *deadline);
            else
                wake_.wait(lock);
        }
    }

    WorkerPool* pool_ = nullptr;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable advanced_;
    std::multimap<double, std::weak_ptr<OAKTimerSource>> schedule_;
    std::thread thread_;
    bool watchingPool_ = false;
    unsigned long long watchRequests_ = 0;
    // Moves of the manual clock, and the last one whose due firings have been posted.
    unsigned long long advances_ = 0;
    unsigned long long advancesServed_ = 0;
    bool stopping_ = false;
};

namespace {

// Runs the main queue's drains on the thread that stands for the main thread.
class MainThreadExecutor final : public OAKQueueExecutor {
public:
    MainThreadExecutor() {
        if (QCoreApplication* application = QCoreApplication::instance()) {
            application_ = application;
            applicationThread_ = application->thread();
            // Posting to a destroyed application would crash; after it is gone, main-queue blocks no
            // longer run (the process is ending).
            qAddPostRoutine(&MainThreadExecutor::applicationWillQuit);
        } else {
            thread_ = std::thread([this] { threadMain(); });
            threadId_ = thread_.get_id();
        }
    }

    void submit(std::shared_ptr<OAKQueue> queue, OAKJob job, bool barrier) override {
        std::lock_guard lock(mutex_);
        if (stopping_)
            return;
        if (application_) {
            if (applicationGone())
                return;
            QMetaObject::invokeMethod(
                application_,
                [queue = std::move(queue), job = std::move(job), barrier]() mutable {
                    queue->runFromExecutor(job, barrier);
                },
                Qt::QueuedConnection);
            return;
        }
        tasks_.push_back(Task{std::move(queue), std::move(job), barrier});
        wake_.notify_one();
    }

    // True once main-queue blocks can no longer run: the application they were posted to is gone.
    static bool hasLostItsThread() { return applicationGone(); }

    bool isMainThread() const {
        if (application_)
            return QThread::currentThread() == applicationThread_;
        return std::this_thread::get_id() == threadId_;
    }

    void shutdown() {
        std::thread thread;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            wake_.notify_one();
            thread = std::move(thread_);
        }
        if (thread.joinable())
            thread.join();
    }

private:
    struct Task {
        std::shared_ptr<OAKQueue> queue;
        OAKJob job;
        bool barrier = false;
    };

    static std::atomic<bool>& applicationGoneFlag() {
        static std::atomic<bool> gone{false};
        return gone;
    }
    static bool applicationGone() { return applicationGoneFlag().load(); }
    static void applicationWillQuit() { applicationGoneFlag().store(true); }

    void threadMain() {
        threadRole = 3;
        mainThreadState = 1;
        pthread_setname_np(pthread_self(), "OAKMain");
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            if (tasks_.empty()) {
                wake_.wait(lock);
                continue;
            }
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task.queue->runFromExecutor(task.job, task.barrier);
            task = Task{};
            lock.lock();
        }
    }

    QCoreApplication* application_ = nullptr;
    QThread* applicationThread_ = nullptr;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::thread thread_;
    std::thread::id threadId_;
    bool stopping_ = false;
};

struct Runtime {
    Runtime() : pool(timers) { timers.setPool(&pool); }

    MainThreadExecutor& mainExecutor() {
        std::call_once(mainOnce, [this] { main = new MainThreadExecutor; });
        return *main;
    }

    void shutdown() {
        timers.shutdown();
        pool.shutdown();
        if (main)
            main->shutdown();
        stopped.store(true, std::memory_order_release);
    }

    // True once the threads have stopped: queued blocks will never run.
    bool hasStopped() const { return stopped.load(std::memory_order_acquire); }

    OAKTimerThread timers;
    WorkerPool pool;
    std::once_flag mainOnce;
    MainThreadExecutor* main = nullptr;
    std::atomic<bool> stopped{false};
};

struct RuntimeShutdown {
    explicit RuntimeShutdown(Runtime* runtime) : runtime_(runtime) {}
    ~RuntimeShutdown() { runtime_->shutdown(); }
    Runtime* runtime_;
};

Runtime& runtime() {
    // Deliberately never freed: threads that outlive the shutdown guard may still touch it.
    static Runtime* const instance = new Runtime;
    static RuntimeShutdown guard(instance);
    return *instance;
}

void WorkerPool::startWatching() {
    timers_.watchPool();
}

// Waits for a semaphore; a pool worker lets the pool know, so that another thread can take its place.
void blockingAcquire(std::binary_semaphore& semaphore) {
    if (threadRole != 1) {
        semaphore.acquire();
        return;
    }
    if (semaphore.try_acquire())
        return;
    WorkerPool& pool = runtime().pool;
    pool.willBlock();
    semaphore.acquire();
    pool.didUnblock();
}

} // namespace

// MARK: - OAKQueue

OAKQueue::OAKQueue(Kind kind, const QString& label, OAKQueueExecutor* executor, bool isMain)
    : kind_(kind), label_(label), executor_(executor), isMain_(isMain) {}

OAKQueue::~OAKQueue() = default;

std::shared_ptr<OAKQueue> OAKQueue::createSerialQueue(const QString& label) {
    return std::shared_ptr<OAKQueue>(new OAKQueue(Kind::Serial, label, &runtime().pool, false));
}

std::shared_ptr<OAKQueue> OAKQueue::createConcurrentQueue(const QString& label) {
    return std::shared_ptr<OAKQueue>(new OAKQueue(Kind::Concurrent, label, &runtime().pool, false));
}

std::shared_ptr<OAKQueue> OAKQueue::mainQueue() {
    // Lives for the whole process and is never freed: static destructors may still dispatch onto it at exit.
    static auto* const queue = new std::shared_ptr<OAKQueue>(new OAKQueue(
        Kind::Serial, QStringLiteral("org.quillon.Quillon.main-thread"), &runtime().mainExecutor(), true));
    return *queue;
}

std::shared_ptr<OAKQueue> OAKQueue::globalQueue() {
    static auto* const queue = new std::shared_ptr<OAKQueue>(new OAKQueue(
        Kind::Concurrent, QStringLiteral("org.quillon.Quillon.global-default"), &runtime().pool, false));
    return *queue;
}

void OAKQueue::addContext(void* context) {
    std::lock_guard lock(mutex_);
    contexts_.push_back(context);
    context_.store(context, std::memory_order_release);
}

void OAKQueue::removeContext(void* context) {
    std::lock_guard lock(mutex_);
    std::erase(contexts_, context);
    context_.store(contexts_.empty() ? nullptr : contexts_.back(), std::memory_order_release);
}

void* OAKQueue::currentContext() {
    return currentFrame.queue ? currentFrame.queue->context() : nullptr;
}

OAKQueue* OAKQueue::currentQueue() {
    return currentFrame.queue;
}

void* OAKQueue::currentSlot() {
    return currentFrame.slot;
}

void OAKQueue::setCurrentSlot(void* value) {
    currentFrame.slot = value;
}

bool OAKQueue::isMainThread() {
    if (mainThreadState < 0) {
        // The binding is fixed when the main queue is first made, so the answer can be cached.
        mainQueue();
        mainThreadState = runtime().mainExecutor().isMainThread() ? 1 : 0;
    }
    return mainThreadState == 1;
}

void OAKQueue::async(OAKJob job) {
    enqueue(Item{std::move(job), nullptr, false});
}

void OAKQueue::barrierAsync(OAKJob job) {
    enqueue(Item{std::move(job), nullptr, true});
}

void OAKQueue::enqueue(Item item) {
    std::unique_lock lock(mutex_);
    if (runtime().hasStopped()) {
        // Nothing will run the block any more. It is dropped at once rather than kept queued, which would
        // keep alive whatever it holds (often the queue's own wrapper, a cycle that is never freed).
        stranded_ = true;
        OAKJob dropped = std::move(item.job);
        lock.unlock();
        dropped = nullptr; // may free this queue: nothing is touched afterwards
        return;
    }
    items_.push_back(std::move(item));
    if (kind_ == Kind::Concurrent) {
        pumpConcurrent(lock);
        return;
    }
    if (owned_)
        return;
    owned_ = true;
    lock.unlock();
    executor_->submit(shared_from_this(), OAKJob(), false);
}

namespace {

// Opens a frame for one execution on a queue and restores the previous one, also when the block throws.
class FrameScope {
public:
    explicit FrameScope(OAKQueue* queue) : saved_(currentFrame) { currentFrame = Frame{queue, nullptr}; }
    ~FrameScope() { currentFrame = saved_; }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;

private:
    const Frame saved_;
};

// Runs a block that nobody waits for. An exception has no caller to go to here, and the queue's other
// blocks may rely on this one having finished, so it ends the process (see Exceptions above); the
// noexcept makes that happen on the spot, wherever the block runs.
void runDetachedJob(OAKJob& job) noexcept {
    job();
}

} // namespace

void OAKQueue::runInFrame(void (*function)(void*), void* argument) {
    FrameScope frame(this);
    function(argument);
}

void OAKQueue::runJobInFrame(OAKJob& job) {
    FrameScope frame(this);
    runDetachedJob(job);
}

bool OAKQueue::syncImpl(void (*function)(void*), void* argument, bool barrier) {
    if (kind_ == Kind::Concurrent) {
        std::unique_lock lock(mutex_);
        const bool canStart =
            items_.empty() && !barrierRunning_ && !stranded_ && (barrier ? running_ == 0 : true);
        if (!canStart && runtime().hasStopped())
            return false;
        // Outlives the wait by the whole block, so the thread that wakes it is long done with it.
        Waiter waiter;
        if (canStart) {
            ++running_;
            barrierRunning_ = barrier;
            lock.unlock();
        } else {
            items_.push_back(Item{OAKJob(), &waiter, barrier});
            pumpConcurrent(lock);
            blockingAcquire(waiter.semaphore);
        }
        // The block's slot is given back even when it throws, so that barriers are not held back.
        struct Finish {
            OAKQueue* queue;
            bool barrier;
            ~Finish() { queue->finishConcurrent(barrier); }
        } finish{this, barrier};
        runInFrame(function, argument);
        return true;
    }

    if (isMain_ && !isMainThread()) {
        if (runtime().hasStopped() || MainThreadExecutor::hasLostItsThread())
            return false;
        // The main queue's blocks run on the main thread, never on the caller's (there, like any block that
        // nobody else waits for, a throwing block ends the process).
        std::binary_semaphore done{0};
        enqueue(Item{[function, argument, &done] {
                         function(argument);
                         done.release();
                     },
                     nullptr, false});
        blockingAcquire(done);
        return true;
    }

    std::unique_lock lock(mutex_);
    Waiter waiter;
    if (!owned_ && items_.empty() && !stranded_) {
        owned_ = true;
        lock.unlock();
    } else if (runtime().hasStopped()) {
        return false;
    } else {
        items_.push_back(Item{OAKJob(), &waiter, false});
        if (!owned_) {
            owned_ = true;
            lock.unlock();
            executor_->submit(shared_from_this(), OAKJob(), false);
        } else {
            lock.unlock();
        }
        blockingAcquire(waiter.semaphore);
    }
    // The queue is handed on even when the block throws: the exception goes to the caller, the queue
    // goes on with its next block.
    struct Release {
        OAKQueue* queue;
        ~Release() {
            std::unique_lock relock(queue->mutex_);
            queue->releaseSerialOwnership(relock);
        }
    } release{this};
    runInFrame(function, argument);
    return true;
}

void OAKQueue::releaseSerialOwnership(std::unique_lock<std::mutex>& lock) {
    if (items_.empty()) {
        owned_ = false;
        return;
    }
    if (items_.front().waiter) {
        // Hand the queue straight to the next synchronous caller.
        Waiter* waiter = items_.front().waiter;
        items_.pop_front();
        lock.unlock();
        waiter->semaphore.release();
        return;
    }
    lock.unlock();
    executor_->submit(shared_from_this(), OAKJob(), false);
}

void OAKQueue::runFromExecutor(OAKJob& job, bool barrier) {
    if (kind_ == Kind::Concurrent) {
        runJobInFrame(job);
        job = nullptr;
        finishConcurrent(barrier);
        return;
    }
    drainSerial();
}

void OAKQueue::drainSerial() {
    // Drains a bounded batch, then yields the worker to other queues (see the design above).
    for (int budget = 64;; --budget) {
        std::unique_lock lock(mutex_);
        if (items_.empty()) {
            owned_ = false;
            return;
        }
        if (budget == 0) {
            lock.unlock();
            executor_->submit(shared_from_this(), OAKJob(), false);
            return;
        }
        Item item = std::move(items_.front());
        items_.pop_front();
        lock.unlock();
        if (item.waiter) {
            item.waiter->semaphore.release();
            return;
        }
        runJobInFrame(item.job);
    }
}

void OAKQueue::pumpConcurrent(std::unique_lock<std::mutex>& lock) {
    std::deque<Item> started;
    while (!items_.empty() && !barrierRunning_) {
        Item& front = items_.front();
        if (front.barrier) {
            if (running_ > 0)
                break;
            barrierRunning_ = true;
        }
        ++running_;
        started.push_back(std::move(front));
        items_.pop_front();
    }
    lock.unlock();
    startItems(started);
}

void OAKQueue::startItems(std::deque<Item>& started) {
    for (Item& item : started) {
        if (item.waiter)
            item.waiter->semaphore.release();
        else
            executor_->submit(shared_from_this(), std::move(item.job), item.barrier);
    }
}

void OAKQueue::finishConcurrent(bool barrier) {
    std::unique_lock lock(mutex_);
    --running_;
    if (barrier)
        barrierRunning_ = false;
    pumpConcurrent(lock);
}

// MARK: - OAKTimerSource

void OAKTimerThread::collectDue(std::multimap<double, std::weak_ptr<OAKTimerSource>>& schedule, double now,
                                std::vector<Firing>& due) {
    while (!schedule.empty() && schedule.begin()->first <= now) {
        std::shared_ptr<OAKTimerSource> source = schedule.begin()->second.lock();
        schedule.erase(schedule.begin());
        if (!source)
            continue;
        source->armed_ = false;
        due.emplace_back(source, source->generation_);
    }
}

void OAKTimerThread::post(const Firing& firing) {
    std::shared_ptr<OAKTimerSource> source = firing.first;
    const unsigned long long generation = firing.second;
    // On a concurrent queue the firing is a barrier: its handler updates the queue's timer table, which
    // only one block may touch at a time.
    if (source->queue_->isConcurrent())
        source->queue_->barrierAsync([source, generation] { source->fire(generation); });
    else
        source->queue_->async([source, generation] { source->fire(generation); });
}

std::shared_ptr<OAKTimerSource> OAKTimerSource::create(std::shared_ptr<OAKQueue> queue) {
    if (!queue)
        return nullptr;
    std::shared_ptr<OAKTimerSource> source(new OAKTimerSource);
    source->queue_ = std::move(queue);
    return source;
}

OAKTimerSource::~OAKTimerSource() {
    OAKTimerThread& timers = runtime().timers;
    std::lock_guard lock(timers.mutex());
    timers.disarmLocked(position_, armed_);
}

void OAKTimerSource::setTimer(double delaySeconds) {
    OAKTimerThread& timers = runtime().timers;
    std::lock_guard lock(timers.mutex());
    if (cancelled_)
        return;
    // Beyond about 30 years the due time could not be turned into a wait deadline (the conversion to
    // the clock's integer ticks overflows) and the timer thread would spin; such a timer never fires in
    // practice, so it is simply due then. NaN counts as 0.
    constexpr double longestDelay = 1e9;
    const double delay = delaySeconds > 0 ? std::min(delaySeconds, longestDelay) : 0.0;
    due_ = nowSeconds() + delay;
    ++generation_;
    hasDue_ = true;
    if (resumed_)
        timers.armLocked(shared_from_this(), due_, position_, armed_);
}

void OAKTimerSource::setHandler(OAKJob handler) {
    OAKTimerThread& timers = runtime().timers;
    std::lock_guard lock(timers.mutex());
    handler_ = std::move(handler);
}

void OAKTimerSource::resume() {
    OAKTimerThread& timers = runtime().timers;
    std::lock_guard lock(timers.mutex());
    if (resumed_ || cancelled_)
        return;
    resumed_ = true;
    if (hasDue_)
        timers.armLocked(shared_from_this(), due_, position_, armed_);
}

void OAKTimerSource::cancel() {
    OAKJob handler;
    {
        OAKTimerThread& timers = runtime().timers;
        std::lock_guard lock(timers.mutex());
        cancelled_ = true;
        timers.disarmLocked(position_, armed_);
        handler = std::move(handler_);
        handler_ = nullptr;
    }
    // The handler (and what it captured) is released outside the timer lock.
}

bool OAKTimerSource::isCancelled() const {
    std::lock_guard lock(runtime().timers.mutex());
    return cancelled_;
}

void OAKTimerSource::fire(unsigned long long generation) {
    OAKJob handler;
    {
        std::lock_guard lock(runtime().timers.mutex());
        // A source set again or cancelled after it became due does not fire for that earlier time.
        if (cancelled_ || armed_ || generation != generation_)
            return;
        handler = handler_;
    }
    if (handler)
        handler();
}

// MARK: - OAKTimerClock and test seams

double OAKTimerClock::now() {
    return nowSeconds();
}

void OAKTimerClock::setManual(bool manual) {
    if (manual) {
        // Started on a multiple of 1/1024 s (rounded up, so that it never goes back): times a test adds to it
        // in binary fractions of a second then stay exact however far the clock has run.
        manualClockSeconds.store(std::ceil(nowSeconds() * 1024) / 1024, std::memory_order_release);
        manualClock.store(true, std::memory_order_release);
    } else {
        manualClock.store(false, std::memory_order_release);
        // Timers armed on the manual clock are due by the machine's clock from now on.
        runtime().timers.advanceManualClock(0);
    }
}

void OAKTimerClock::advance(double seconds) {
    runtime().timers.advanceManualClock(seconds);
}

void OAKQueue::setPoolCheckHook(std::function<void(bool keepWatching)> hook) {
    std::lock_guard lock(poolCheckHook().mutex);
    poolCheckHook().hook = std::move(hook);
}
