// File observers: the set of live observers, starting and stopping streams, and handing events on.
#include "fileobserver/NBFileObserver.h"

#include "fileobserver/NBFileObserverSerialQueue.h"

#include <unordered_map>

namespace {

// Every live file observer, held weakly, keyed by address: a stream's context is the bare address of its
// observer (not retained), and the delivery thread checks here that the observer is still alive before
// handing it an event. Touched only on its own serial queue.
struct LiveObservers {
    NBFileObserverSerialQueue queue{QStringLiteral("org.quillon.Quillon.NBFileObserverHashTableQueue")};
    std::unordered_map<const void*, std::weak_ptr<NBFileObserver>> observers;
};

LiveObservers& liveObservers() {
    // Never destroyed: the delivery thread may consult it while the process exits.
    static LiveObservers* shared = new LiveObservers();
    return *shared;
}

} // namespace

std::shared_ptr<NBFileObserver>
NBFileObserver::fileObserverWithPath(const QString& path, std::shared_ptr<NBEventResponse> eventResponse) {
    if (path.isEmpty())
        return nullptr;
    auto observer = std::make_shared<NBFileObserver>(PrivateTag{}, path, std::move(eventResponse));
    observer->setUp();
    return observer;
}

NBFileObserver::NBFileObserver(PrivateTag, const QString& path,
                               std::shared_ptr<NBEventResponse> eventResponse)
    : observedPath_(path), eventResponse_(std::move(eventResponse)) {}

NBFileObserver::~NBFileObserver() {
    tearDown();
    const void* key = this;
    // Only an entry whose observer is gone is removed: another observer may since have been created at the
    // same address and registered after this removal was queued.
    liveObservers().queue.dispatchAsynchronously([key] {
        auto& observers = liveObservers().observers;
        auto found = observers.find(key);
        if (found != observers.end() && found->second.expired())
            observers.erase(found);
    });
}

std::shared_ptr<NBEventResponse> NBFileObserver::eventResponse() const {
    std::lock_guard lock(mutex_);
    return eventResponse_;
}

std::shared_ptr<NBFileEventStream> NBFileObserver::eventStream() const {
    std::lock_guard lock(mutex_);
    return eventStream_;
}

void NBFileObserver::setUp() {
    {
        std::lock_guard lock(mutex_);
        if (setUpDone_)
            return;
        setUpDone_ = true;
    }
    const void* key = this;
    std::weak_ptr<NBFileObserver> weakSelf = weak_from_this();
    liveObservers().queue.dispatchAsynchronously(
        [key, weakSelf] { liveObservers().observers[key] = weakSelf; });
    // The stream is made under the lock so that a delivery racing with the start (possible with a very short
    // latency) waits for eventStream_ instead of finding it empty.
    std::lock_guard lock(mutex_);
    eventStream_ = std::make_shared<NBFileEventStream>(observedPath_, &NBFileObserver::deliverEvents, key);
}

void NBFileObserver::tearDown() {
    std::shared_ptr<NBFileEventStream> stream;
    {
        std::lock_guard lock(mutex_);
        stream.swap(eventStream_);
    }
    if (stream)
        stream->stop();
}

void NBFileObserver::postFileSystemEvent(const NBFileSystemEvent& event) {
    std::shared_ptr<NBEventResponse> response = eventResponse();
    // The test is on the target alone: a gone target means the observer is no longer wanted.
    if (!response || !response->target()) {
        {
            std::lock_guard lock(mutex_);
            eventResponse_.reset();
        }
        tearDown();
        return;
    }
    response->invokeWithFileSystemEvent(event);
}

void NBFileObserver::flushSynchronously() {
    if (auto stream = eventStream())
        stream->flushSynchronously();
}

void NBFileObserver::flushAsynchronously() {
    if (auto stream = eventStream())
        stream->flushAsynchronously();
}

void NBFileObserver::deliverEvents(const void* context, std::uint64_t streamIdentifier,
                                   const std::vector<NBFileSystemEvent>& events) {
    for (const NBFileSystemEvent& event : events) {
        std::shared_ptr<NBFileObserver> observer;
        liveObservers().queue.dispatchSynchronously([&] {
            auto& observers = liveObservers().observers;
            auto found = observers.find(context);
            if (found != observers.end())
                observer = found->second.lock();
        });
        // Gone or being destroyed: drop the event. A stream torn down meanwhile (or an observer that now
        // lives at the same address with another stream) gets nothing either.
        if (!observer)
            continue;
        std::shared_ptr<NBFileEventStream> stream = observer->eventStream();
        if (!stream || stream->identifier() != streamIdentifier)
            continue;
        observer->postFileSystemEvent(event);
    }
}

void NBFileObserver::setCoalescingLatency(double seconds) {
    NBFileEventStream::setLatency(seconds);
}

double NBFileObserver::coalescingLatency() {
    return NBFileEventStream::latency();
}

void NBFileObserver::setForcesPolling(bool forcesPolling) {
    NBFileEventStream::setForcesPolling(forcesPolling);
}

bool NBFileObserver::forcesPolling() {
    return NBFileEventStream::forcesPolling();
}

void NBFileObserver::setPollingInterval(double seconds) {
    NBFileEventStream::setPollingInterval(seconds);
}

double NBFileObserver::pollingInterval() {
    return NBFileEventStream::pollingInterval();
}

void NBFileObserver::setWatchRetryInterval(double seconds) {
    NBFileEventStream::setWatchRetryInterval(seconds);
}

double NBFileObserver::watchRetryInterval() {
    return NBFileEventStream::watchRetryInterval();
}

void NBFileObserver::setWatchLimit(std::size_t limit) {
    NBFileEventStream::setWatchLimit(limit);
}

std::size_t NBFileObserver::watchLimit() {
    return NBFileEventStream::watchLimit();
}
