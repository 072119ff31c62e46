// The low-level queue type under OAKDispatchQueue: a FIFO of jobs per queue, run on a shared pool of worker
// threads, plus one-shot timer sources served by one timer thread. See OAKQueue.cpp for the design.
//
// This layer knows nothing of queue stacks, deadlock behaviours or named timers; OAKDispatchQueue builds
// those on top of it. What it offers in their place are the queue-specific values: every queue carries one
// context pointer (the wrapping OAKDispatchQueue), and every execution of a block on a queue (inline for a
// synchronous dispatch, on a worker for an asynchronous one) opens a frame on the running thread that holds
// the queue and one per-execution slot (the queue stack).
#pragma once

#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

using OAKJob = std::function<void()>;

class OAKQueueExecutor;

class OAKQueue : public std::enable_shared_from_this<OAKQueue> {
public:
    enum class Kind { Serial, Concurrent };

    // A new serial queue (one block at a time, in submission order) or concurrent queue (blocks run side
    // by side; barriers wait for the running ones and hold back later ones). Creating a queue costs no
    // thread: its blocks run on the shared worker pool.
    static std::shared_ptr<OAKQueue> createSerialQueue(const QString& label);
    static std::shared_ptr<OAKQueue> createConcurrentQueue(const QString& label);
    // The serial queue bound to the thread that stands for the main thread (see OAKQueue.cpp).
    static std::shared_ptr<OAKQueue> mainQueue();
    // The process-wide default-priority concurrent queue.
    static std::shared_ptr<OAKQueue> globalQueue();

    ~OAKQueue();
    OAKQueue(const OAKQueue&) = delete;
    OAKQueue& operator=(const OAKQueue&) = delete;

    QString label() const { return label_; }
    bool isConcurrent() const { return kind_ == Kind::Concurrent; }
    bool isMainQueue() const { return isMain_; }

    void async(OAKJob job);
    void barrierAsync(OAKJob job);

    // Runs the callable once the queue reaches it and returns afterwards. The block runs on the calling
    // thread, except on the main queue called from another thread, where it runs on the main thread.
    // Returns false, without running the callable, when the dispatch threads have stopped at process exit
    // and the queue is not free at once: nothing would ever hand it the queue, so waiting would hang.
    template <typename Callable> [[nodiscard]] bool sync(Callable&& callable) {
        return syncImpl(&invokeCallable<std::remove_reference_t<Callable>>, erase(callable), false);
    }
    template <typename Callable> [[nodiscard]] bool barrierSync(Callable&& callable) {
        return syncImpl(&invokeCallable<std::remove_reference_t<Callable>>, erase(callable), true);
    }

    // The queue's specific value (the wrapping object), read on any thread. A queue wrapped again takes
    // the newer wrapper's value; when that wrapper goes away, the one before it is the value again.
    void addContext(void* context);
    void removeContext(void* context);
    void* context() const { return context_.load(std::memory_order_acquire); }

    // The context of the queue whose block runs on this thread, or null outside any queue.
    static void* currentContext();
    // The queue whose block runs on this thread, or null.
    static OAKQueue* currentQueue();
    // The per-execution slot of the block running on this thread (null outside any queue). It starts
    // null for every execution and is dropped when the execution ends.
    static void* currentSlot();
    static void setCurrentSlot(void* value);
    // True on the thread that stands for the main thread.
    static bool isMainThread();

    // Called by the executor (worker pool or main thread): runs a block of a concurrent queue (job set)
    // or some of a serial queue's pending blocks (job empty).
    void runFromExecutor(OAKJob& job, bool barrier);

    // Test seam: called on the timer thread after each check of the worker pool for a stall, with the timer
    // thread's lock released; `keepWatching` is false when the pool no longer needs watching. Tests use it
    // to act at the moment the watchdog decides whether to go on.
    static void setPoolCheckHook(std::function<void(bool keepWatching)> hook);

private:
    struct Waiter;
    struct Item {
        OAKJob job;
        Waiter* waiter = nullptr;
        bool barrier = false;
    };

    OAKQueue(Kind kind, const QString& label, OAKQueueExecutor* executor, bool isMain);
    template <typename Callable> static void* erase(Callable& callable) {
        return const_cast<void*>(static_cast<const void*>(std::addressof(callable)));
    }
    template <typename Callable> static void invokeCallable(void* callable) {
        (*static_cast<Callable*>(callable))();
    }
    bool syncImpl(void (*function)(void*), void* argument, bool barrier);
    void enqueue(Item item);
    void runInFrame(void (*function)(void*), void* argument);
    void runJobInFrame(OAKJob& job);
    void releaseSerialOwnership(std::unique_lock<std::mutex>& lock);
    void drainSerial();
    void pumpConcurrent(std::unique_lock<std::mutex>& lock);
    void finishConcurrent(bool barrier);
    void startItems(std::deque<Item>& started);

    const Kind kind_;
    const QString label_;
    OAKQueueExecutor* const executor_;
    const bool isMain_;
    std::atomic<void*> context_{nullptr};
    std::vector<void*> contexts_; // guarded by mutex_

    std::mutex mutex_;
    std::deque<Item> items_;
    // Serial: true while someone (a worker, a synchronous caller or a scheduled drain) owns the queue.
    bool owned_ = false;
    // Concurrent: blocks running now, and whether one of them is a barrier.
    unsigned running_ = 0;
    bool barrierRunning_ = false;
    // Set when a block was dropped because the threads had stopped at process exit: the blocks after it
    // cannot keep their order any more, so a synchronous dispatch is refused instead of run.
    bool stranded_ = false;
};

// The timers' clock: monotonic seconds (OAKDispatchQueue::_now reads it). Tests can stop it and move it by
// hand, so that timer tests check exact times and take no real time.
class OAKTimerClock {
public:
    static double now();
    // True: from now on the clock stands at its current reading and moves only by advance(). False: it
    // follows the machine's monotonic clock again.
    static void setManual(bool manual);
    // Moves a manual clock forward by `seconds` (0 is allowed) and returns once the timer thread has posted
    // to their queues every firing due by then.
    static void advance(double seconds);
};

// A one-shot timer source: once started, it posts its handler to its queue when it is due, as a barrier on
// a concurrent queue. Setting the timer again before it fires moves the firing; cancelling stops it for
// good. All operations are safe on any thread; OAKDispatchQueue calls them on the source's queue.
class OAKTimerSource : public std::enable_shared_from_this<OAKTimerSource> {
public:
    static std::shared_ptr<OAKTimerSource> create(std::shared_ptr<OAKQueue> queue);
    ~OAKTimerSource();

    // Fires delay seconds (at least 0, at most about 30 years) after now.
    void setTimer(double delaySeconds);
    void setHandler(OAKJob handler);
    // Starts a new source (sources are created suspended).
    void resume();
    void cancel();
    bool isCancelled() const;

private:
    friend class OAKTimerThread;
    OAKTimerSource() = default;
    void fire(unsigned long long generation);

    std::shared_ptr<OAKQueue> queue_;
    OAKJob handler_;
    // Guarded by the timer thread's mutex.
    double due_ = 0;
    bool armed_ = false;
    bool resumed_ = false;
    bool cancelled_ = false;
    bool hasDue_ = false;
    unsigned long long generation_ = 0;
    std::multimap<double, std::weak_ptr<OAKTimerSource>>::iterator position_;
};
