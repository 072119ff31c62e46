// Serial and concurrent queues with a queue stack, a deadlock guard and named one-shot timers.
//
// PUBLIC INTERFACE (fixed: the store engine and the library are written against it). The implementation
// design (shared worker pool, timer thread, main-queue thread) is described where it is implemented, at the
// top of dispatch/OAKQueue.cpp; the queue stack and timers at the top of dispatch/OAKDispatchQueue.cpp.
#pragma once

#include <QString>

#include <functional>
#include <memory>

using OAKBlock = std::function<void()>;

enum OAKDeadlockBehavior : int {
    OAKDeadlockBehaviorExecute = 0,
    OAKDeadlockBehaviorSkip = 1,
    OAKDeadlockBehaviorLog = 2,
    OAKDeadlockBehaviorAssert = 3,
    OAKDeadlockBehaviorBlock = 4,
};

enum OAKTimerBehavior : int {
    OAKTimerBehaviorCoalesce = 0,
    OAKTimerBehaviorDelay = 1,
    OAKTimerBehaviorThrottle = 2,
};

inline constexpr const char* OAKBundleIdentifier = "org.quillon.Quillon";

class OAKQueue; // the low-level FIFO queue type that OAKDispatchQueue wraps

class OAKDispatchQueue : public std::enable_shared_from_this<OAKDispatchQueue> {
public:
    ~OAKDispatchQueue();
    OAKDispatchQueue(const OAKDispatchQueue&) = delete;
    OAKDispatchQueue& operator=(const OAKDispatchQueue&) = delete;

    static std::shared_ptr<OAKDispatchQueue> dispatchQueueWithGCDQueue(std::shared_ptr<OAKQueue> queue,
                                                                       OAKDeadlockBehavior behavior);
    static std::shared_ptr<OAKDispatchQueue> dispatchQueueWithLabel(const QString& label,
                                                                    OAKDeadlockBehavior behavior);
    static std::shared_ptr<OAKDispatchQueue> dispatchQueueWithLabel(const QString& label);
    static QString labelByPrependingBundleIdentifierToString(const QString& string);
    static std::shared_ptr<OAKDispatchQueue> globalDispatchQueue();
    static std::shared_ptr<OAKDispatchQueue> mainDispatchQueue();
    static std::shared_ptr<OAKDispatchQueue> sharedConcurrentQueue();

    void dispatchSynchronously(const OAKBlock& block);
    void dispatchAsynchronously(OAKBlock block);
    void dispatchBarrierSynchronously(const OAKBlock& block);
    void dispatchBarrierAsynchronously(OAKBlock block);

    bool isCurrentQueue() const;
    bool isInCurrentQueueStack() const;

    // Returns immediately; the scheduling itself happens on the queue.
    void scheduleTimerWithName(const QString& name, double timeInterval, OAKTimerBehavior behavior,
                               OAKBlock block);
    void cancelTimerWithName(const QString& name);
    void cancelAllTimers();
    unsigned timerCount() const;

    QString label() const;
    OAKDeadlockBehavior deadlockBehavior() const;
    bool isConcurrent() const;
    // "<OAKDispatchQueue:0x...>[label]"
    QString description() const;

    // Monotonic seconds (the timers' clock).
    static double _now();

private:
    OAKDispatchQueue();
    struct Private;
    std::unique_ptr<Private> d;
};

class OAKBlockOperation {
public:
    static std::shared_ptr<OAKBlockOperation>
    dispatchedOperationWithQueue(const std::shared_ptr<OAKDispatchQueue>& queue, OAKBlock block);
    void waitUntilFinished();
    bool isDone() const;

private:
    OAKBlockOperation() = default;
    struct Private;
    std::shared_ptr<Private> d;
};
