// OAKDispatchQueue: the queue stack, the deadlock guard and the named one-shot timers on top of OAKQueue,
// and OAKBlockOperation.
//
// The queue stack is the ordered list of serial queues the running code is nested in through synchronous
// dispatches. It lives in the execution slot of the innermost running queue (see OAKQueue.h): a
// synchronous dispatch that starts without a visible stack creates the list on the caller's stack frame,
// every serial queue entered appends itself while its block runs, and the list is visible only inside
// those blocks. Asynchronous blocks and timer handlers on a serial queue start a fresh list holding only
// their queue. Concurrent queues never append themselves.
//
// Timers. Each queue keeps a dictionary from timer name to record (due time, pending timer source), touched
// only on the queue itself, by one block at a time: the public timer operations reach it through an
// asynchronous dispatch, which on a concurrent queue is a barrier (as is a timer's firing there), since
// blocks of a concurrent queue would otherwise touch the table side by side. The sources are OAKTimerSource
// objects served by the one timer thread, which posts their firing back onto this queue. Records are never
// removed: an idle record remembers the time that throttling measures from.
//
// At process exit, once the dispatch threads have stopped, a synchronous dispatch onto a queue that is not
// free at once raises an assertion (with the default handler the process ends with the message) instead of
// hanging; the block does not run.
//
// Exceptions: a synchronously dispatched block that throws leaves the queue and the caller's stack as they
// were and the exception reaches the caller; anything else that throws ends the process (see OAKQueue.cpp).
//
// Main queue: see OAKQueue.cpp. The main-queue instance counts as part of the stack exactly on the thread
// that stands for the main thread, so a synchronous dispatch onto it from that thread runs inline (the
// deadlock behaviour of the main-queue instance is 0).
#include "dispatch/OAKDispatchQueue.h"

#include "dispatch/OAKQueue.h"
#include "foundation/NBLogging.h"

#include <QStringList>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <vector>

Q_LOGGING_CATEGORY(lcDispatch, "quillon.dispatch")

namespace {

using QueueStack = std::vector<const OAKDispatchQueue*>;

const char* const deadlockMessage =
    "Synchronous dispatch can not be executed on the queue with label '%@' because "
    "it is already part of the current dispatch queue hierarchy";
// A synchronous dispatch made after the dispatch threads stopped at process exit (from a static destructor,
// say) onto a queue that is not free at once: waiting would hang the exit, so the block does not run.
const char* const stoppedMessage = "Synchronous dispatch can not be executed on the queue with label '%@' "
                                   "because the dispatch threads have stopped at process exit";
const char* const lastObjectMessage =
    "The queue stack set after execution of a block should have the parent queue as the last object: %@";
const char* const syncNotEmptyMessage =
    "The queue stack should be empty after execution of a block dispatched "
    "synchronously that was started without a queue stack yet: %@";
const char* const asyncStackSetMessage =
    "There should be no queue stack set before execution of a block dispatched asynchronously with queue: %@";
const char* const asyncNotEmptyMessage =
    "The queue stack should be empty after execution of a block dispatched asynchronously with queue: %@";
const char* const timerStackSetMessage = "There should be no queue stack set before execution of a block "
                                         "dispatched asynchronously by timer '%@' with queue: %@";
const char* const timerNotEmptyMessage =
    "The queue stack should be empty after execution of a block dispatched "
    "asynchronously by timer '%@' with queue: %@";

QueueStack* visibleStack() {
    return static_cast<QueueStack*>(OAKQueue::currentSlot());
}

// Written like a list's description: "(<OAKDispatchQueue:0x...>[a], <OAKDispatchQueue:0x...>[b])".
QString describeStack(const QueueStack& stack) {
    QStringList parts;
    for (const OAKDispatchQueue* queue : stack)
        parts << queue->description();
    return QLatin1Char('(') + parts.join(QStringLiteral(", ")) + QLatin1Char(')');
}

void raise(const QString& message) {
    nbRaiseAssertion(lcDispatch(), message);
}

// Runs a block the way a serial queue runs its asynchronous blocks: with a fresh stack holding only the
// queue. Plain asynchronous blocks and timer handlers differ in their messages (the timer's name first).
// The messages are built only when an invariant is broken: this runs for every asynchronous block.
void runWithFreshStack(const OAKDispatchQueue* queue, const OAKBlock& block, const char* stackSetFormat,
                       const char* notEmptyFormat, const QString* timerName) {
    auto message = [&](const char* format) {
        return timerName ? nbFormat(format, *timerName, queue->description())
                         : nbFormat(format, queue->description());
    };
    if (visibleStack())
        raise(message(stackSetFormat));
    QueueStack stack{queue};
    OAKQueue::setCurrentSlot(&stack);
    block();
    if (stack.empty() || stack.back() != queue)
        raise(nbFormat(lastObjectMessage, describeStack(stack)));
    if (!stack.empty())
        stack.pop_back();
    if (!stack.empty())
        raise(message(notEmptyFormat));
    OAKQueue::setCurrentSlot(nullptr);
}

struct TimerRecord {
    std::optional<double> dateValue;
    std::shared_ptr<OAKTimerSource> timerValue;
};

} // namespace

struct OAKDispatchQueue::Private {
    OAKDispatchQueue* owner = nullptr;
    std::shared_ptr<OAKQueue> queue;
    QString label;
    OAKDeadlockBehavior deadlockBehavior = OAKDeadlockBehaviorExecute;
    bool concurrent = false;
    // Touched only on the queue.
    std::optional<std::map<QString, TimerRecord>> timers;
    std::atomic<unsigned> timerCountPrivate{0};
    // Records holding a pending source, kept as records change so that recounting costs nothing even
    // with many timer names (a full pass per change would make scheduling quadratic in their number).
    unsigned pendingRecords = 0;

    bool scheduleTimer(const QString& name, double referenceTime, double timeInterval,
                       OAKTimerBehavior behavior, const OAKBlock& block);
    void cancelTimer(const QString& name);
    void updateTimerCountPrivate();
    // Runs a step that touches the timer table on the queue, one at a time (see Timers above).
    void dispatchTimerStep(OAKBlock step);
};

OAKDispatchQueue::OAKDispatchQueue() : d(std::make_unique<Private>()) {
    d->owner = this;
}

OAKDispatchQueue::~OAKDispatchQueue() {
    // Pending sources must not outlive their queue object: the timer thread would keep them alive.
    if (d->timers) {
        for (auto& [name, record] : *d->timers) {
            if (record.timerValue)
                record.timerValue->cancel();
        }
    }
    if (d->queue)
        d->queue->removeContext(this);
}

// MARK: - Creating queues

std::shared_ptr<OAKDispatchQueue> OAKDispatchQueue::dispatchQueueWithGCDQueue(std::shared_ptr<OAKQueue> queue,
                                                                              OAKDeadlockBehavior behavior) {
    if (!queue)
        return nullptr;
    std::shared_ptr<OAKDispatchQueue> result(new OAKDispatchQueue);
    result->d->label = queue->label();
    result->d->concurrent = queue->isConcurrent();
    result->d->deadlockBehavior = behavior;
    queue->addContext(result.get());
    result->d->queue = std::move(queue);
    return result;
}

std::shared_ptr<OAKDispatchQueue> OAKDispatchQueue::dispatchQueueWithLabel(const QString& label,
                                                                           OAKDeadlockBehavior behavior) {
    auto result = dispatchQueueWithGCDQueue(OAKQueue::createSerialQueue(label), behavior);
    result->d->label = label;
    return result;
}

std::shared_ptr<OAKDispatchQueue> OAKDispatchQueue::dispatchQueueWithLabel(const QString& label) {
    return dispatchQueueWithLabel(label, OAKDeadlockBehaviorExecute);
}

QString OAKDispatchQueue::labelByPrependingBundleIdentifierToString(const QString& string) {
    return QString::fromUtf8(OAKBundleIdentifier) + QLatin1Char('.') + string;
}

std::shared_ptr<OAKDispatchQueue> OAKDispatchQueue::globalDispatchQueue() {
    // The shared instances live for the whole process and are never freed: code running in static
    // destructors at exit may still dispatch onto them.
    static auto* const instance = [] {
        auto queue = OAKQueue::globalQueue();
        const QString label = queue->label().isEmpty() ? QStringLiteral("unlabeled") : queue->label();
        auto result = dispatchQueueWithGCDQueue(std::move(queue), OAKDeadlockBehaviorBlock);
        result->d->label = label;
        result->d->concurrent = true;
        return new std::shared_ptr<OAKDispatchQueue>(std::move(result));
    }();
    return *instance;
}

std::shared_ptr<OAKDispatchQueue> OAKDispatchQueue::mainDispatchQueue() {
    static auto* const instance = [] {
        auto queue = OAKQueue::mainQueue();
        const QString label = queue->label().isEmpty() ? QStringLiteral("unlabeled") : queue->label();
        auto result = dispatchQueueWithGCDQueue(std::move(queue), OAKDeadlockBehaviorExecute);
        result->d->label = label;
        return new std::shared_ptr<OAKDispatchQueue>(std::move(result));
    }();
    return *instance;
}

std::shared_ptr<OAKDispatchQueue> OAKDispatchQueue::sharedConcurrentQueue() {
    static auto* const instance = [] {
        const QString label = QStringLiteral("OAKSharedConcurrentQueue");
        auto result =
            dispatchQueueWithGCDQueue(OAKQueue::createConcurrentQueue(label), OAKDeadlockBehaviorBlock);
        result->d->label = label;
        result->d->concurrent = true;
        return new std::shared_ptr<OAKDispatchQueue>(std::move(result));
    }();
    return *instance;
}

// MARK: - Dispatching

void OAKDispatchQueue::dispatchSynchronously(const OAKBlock& block) {
    if (d->deadlockBehavior != OAKDeadlockBehaviorBlock && isInCurrentQueueStack()) {
        switch (d->deadlockBehavior) {
        case OAKDeadlockBehaviorExecute:
            block();
            return;
        case OAKDeadlockBehaviorSkip:
            return;
        case OAKDeadlockBehaviorLog:
            qCWarning(lcDispatch).noquote() << nbFormat(deadlockMessage, d->label);
            return;
        case OAKDeadlockBehaviorAssert:
            raise(nbFormat(deadlockMessage, d->label));
            return;
        case OAKDeadlockBehaviorBlock:
            break;
        }
        // An out-of-range behaviour value is treated as "no check", like behaviour 4.
    }

    QueueStack* stack = visibleStack();
    QueueStack startedStack;
    const bool startedHere = stack == nullptr;
    if (startedHere)
        stack = &startedStack;
    const bool concurrent = d->concurrent;
    const bool ran = d->queue->sync([&] {
        if (!concurrent)
            stack->push_back(this);
        OAKQueue::setCurrentSlot(stack);
        // A throwing block leaves the caller's stack as it found it; the exception goes on to the caller.
        try {
            block();
        } catch (...) {
            if (!concurrent && !stack->empty() && stack->back() == this)
                stack->pop_back();
            OAKQueue::setCurrentSlot(nullptr);
            throw;
        }
        if (stack->empty() || stack->back() != this)
            raise(nbFormat(lastObjectMessage, describeStack(*stack)));
        if (!concurrent && !stack->empty())
            stack->pop_back();
        if (startedHere && !stack->empty())
            raise(nbFormat(syncNotEmptyMessage, describeStack(*stack)));
        OAKQueue::setCurrentSlot(nullptr);
    });
    if (!ran)
        raise(nbFormat(stoppedMessage, d->label));
}

void OAKDispatchQueue::dispatchAsynchronously(OAKBlock block) {
    if (d->concurrent) {
        d->queue->async(std::move(block));
        return;
    }
    d->queue->async([self = shared_from_this(), block = std::move(block)] {
        runWithFreshStack(self.get(), block, asyncStackSetMessage, asyncNotEmptyMessage, nullptr);
    });
}

void OAKDispatchQueue::dispatchBarrierSynchronously(const OAKBlock& block) {
    if (!d->queue->barrierSync(block))
        raise(nbFormat(stoppedMessage, d->label));
}

void OAKDispatchQueue::dispatchBarrierAsynchronously(OAKBlock block) {
    d->queue->barrierAsync(std::move(block));
}

bool OAKDispatchQueue::isCurrentQueue() const {
    return OAKQueue::currentContext() == this;
}

bool OAKDispatchQueue::isInCurrentQueueStack() const {
    if (d->queue->isMainQueue())
        return OAKQueue::isMainThread();
    const QueueStack* stack = visibleStack();
    return stack && std::find(stack->begin(), stack->end(), this) != stack->end();
}

// MARK: - Timers

void OAKDispatchQueue::scheduleTimerWithName(const QString& name, double timeInterval,
                                             OAKTimerBehavior behavior, OAKBlock block) {
    const double referenceTime = _now();
    d->dispatchTimerStep(
        [self = shared_from_this(), name, referenceTime, timeInterval, behavior, block = std::move(block)] {
            self->d->scheduleTimer(name, referenceTime, timeInterval, behavior, block);
        });
}

void OAKDispatchQueue::Private::dispatchTimerStep(OAKBlock step) {
    if (concurrent)
        queue->barrierAsync(std::move(step));
    else
        owner->dispatchAsynchronously(std::move(step));
}

bool OAKDispatchQueue::Private::scheduleTimer(const QString& name, double referenceTime, double timeInterval,
                                              OAKTimerBehavior behavior, const OAKBlock& block) {
    if (behavior != OAKTimerBehaviorCoalesce && behavior != OAKTimerBehaviorDelay &&
        behavior != OAKTimerBehaviorThrottle)
        return false;
    if (!timers)
        timers.emplace();
    std::optional<double> due;
    std::shared_ptr<OAKTimerSource> source;
    if (auto found = timers->find(name); found != timers->end()) {
        due = found->second.dateValue;
        source = found->second.timerValue;
    }
    const bool pending = source != nullptr;
    if (behavior != OAKTimerBehaviorThrottle && !pending)
        due.reset();
    if (!pending) {
        source = OAKTimerSource::create(queue);
        if (!source)
            return false;
    }

    const double now = _now();
    if (behavior == OAKTimerBehaviorThrottle) {
        const std::optional<double> last = due;
        if (pending) {
            // A pending throttled firing is left as it is.
        } else if (!last || now >= *last + timeInterval) {
            source->setTimer(0);
            due = now;
        } else {
            source->setTimer(*last + timeInterval - now);
            due = *last + timeInterval;
        }
    } else {
        // The request waited on the queue for (now - referenceTime); that much of the interval is gone.
        const double interval = std::max(0.0, timeInterval - (now - referenceTime));
        const double requested = now + interval;
        if (behavior == OAKTimerBehaviorDelay || !pending || (due && *due > requested))
            source->setTimer(interval);
        // The record holds the latest request's time even when an earlier pending firing is kept, as a
        // coalesced timer's record is defined. With one interval per timer name, as every caller uses, a
        // later request is never due sooner than that time, so the earliest firing is what stays.
        due = requested;
    }

    std::weak_ptr<OAKDispatchQueue> weakOwner = owner->weak_from_this();
    const bool isConcurrent = concurrent;
    // On a concurrent queue the handler runs as a barrier (see OAKTimerSource), so its cancelling step
    // touches the table alone.
    source->setHandler([weakOwner, name, block, isConcurrent] {
        const std::shared_ptr<OAKDispatchQueue> self = weakOwner.lock();
        if (!self)
            return;
        if (isConcurrent) {
            block();
        } else {
            runWithFreshStack(self.get(), block, timerStackSetMessage, timerNotEmptyMessage, &name);
        }
        self->d->cancelTimer(name);
    });
    if (!pending)
        source->resume();

    if (!pending)
        ++pendingRecords;
    (*timers)[name] = TimerRecord{due, source};
    updateTimerCountPrivate();
    return true;
}

void OAKDispatchQueue::Private::cancelTimer(const QString& name) {
    if (!timers)
        return;
    auto found = timers->find(name);
    if (found == timers->end() || !found->second.timerValue)
        return;
    found->second.timerValue->cancel();
    found->second.timerValue.reset();
    --pendingRecords;
    updateTimerCountPrivate();
}

void OAKDispatchQueue::Private::updateTimerCountPrivate() {
    timerCountPrivate.store(pendingRecords);
}

void OAKDispatchQueue::cancelTimerWithName(const QString& name) {
    d->dispatchTimerStep([self = shared_from_this(), name] { self->d->cancelTimer(name); });
}

void OAKDispatchQueue::cancelAllTimers() {
    d->dispatchTimerStep([self = shared_from_this()] {
        if (!self->d->timers)
            return;
        QStringList names;
        for (const auto& [name, record] : *self->d->timers)
            names << name;
        for (const QString& name : names)
            self->d->cancelTimer(name);
    });
}

unsigned OAKDispatchQueue::timerCount() const {
    return d->timerCountPrivate.load();
}

// MARK: - Properties

QString OAKDispatchQueue::label() const {
    return d->label;
}

OAKDeadlockBehavior OAKDispatchQueue::deadlockBehavior() const {
    return d->deadlockBehavior;
}

bool OAKDispatchQueue::isConcurrent() const {
    return d->concurrent;
}

QString OAKDispatchQueue::description() const {
    return QStringLiteral("<OAKDispatchQueue:%1>[%2]")
        .arg(QString::asprintf("%p", static_cast<const void*>(this)), d->label);
}

double OAKDispatchQueue::_now() {
    return OAKTimerClock::now();
}

// MARK: - OAKBlockOperation

struct OAKBlockOperation::Private {
    std::shared_ptr<OAKDispatchQueue> queue;
    std::atomic<bool> done{false};
};

std::shared_ptr<OAKBlockOperation>
OAKBlockOperation::dispatchedOperationWithQueue(const std::shared_ptr<OAKDispatchQueue>& queue,
                                                OAKBlock block) {
    std::shared_ptr<OAKBlockOperation> operation(new OAKBlockOperation);
    operation->d = std::make_shared<Private>();
    if (!queue)
        return nullptr;
    operation->d->queue =
        OAKDispatchQueue::dispatchQueueWithLabel(queue->label() + QStringLiteral(".block_operation"));
    // The block holds the private state, not the operation, so an operation nobody waits for still runs.
    operation->d->queue->dispatchAsynchronously([state = operation->d, queue, block = std::move(block)] {
        state->done = false;
        queue->dispatchSynchronously(block);
        state->done = true;
    });
    return operation;
}

void OAKBlockOperation::waitUntilFinished() {
    bool done = false;
    const std::shared_ptr<Private> state = d;
    d->queue->dispatchSynchronously([&] { done = state->done; });
    if (!done)
        nbRaiseAssertion(lcDispatch(), QStringLiteral("BAD"));
}

bool OAKBlockOperation::isDone() const {
    return d->done.load();
}
