// File observers: starting and stopping streams, and handing their events on.
#include "fileobserver/NBFileObserver.h"

std::shared_ptr<NBFileObserver>
NBFileObserver::fileObserverWithPath(const QString& path, std::shared_ptr<NBEventResponse> eventResponse,
                                     NBFileEventStreamOptions options) {
    if (path.isEmpty())
        return nullptr;
    auto observer = std::make_shared<NBFileObserver>(PrivateTag{}, path, std::move(eventResponse), options);
    observer->setUp();
    return observer;
}

NBFileObserver::NBFileObserver(PrivateTag, const QString& path,
                               std::shared_ptr<NBEventResponse> eventResponse,
                               NBFileEventStreamOptions options)
    : observedPath_(path), options_(options), eventResponse_(std::move(eventResponse)) {}

NBFileObserver::~NBFileObserver() {
    tearDown();
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
        if (setUpDone_ || tornDown_)
            return;
        setUpDone_ = true;
    }
    // The stream is made without the observer's lock: its first walk may take a while, and a delivery that
    // reaches this observer meanwhile (through a watch another stream already holds) must not wait for it on
    // the delivery thread. Such a delivery finds no stream yet and is dropped, as a change made before the
    // observer existed.
    std::weak_ptr<NBFileObserver> weakSelf = weak_from_this();
    auto stream = std::make_shared<NBFileEventStream>(
        observedPath_,
        [weakSelf](const std::vector<NBFileSystemEvent>& events) { deliverEvents(weakSelf, events); },
        options_);
    {
        std::lock_guard lock(mutex_);
        if (!tornDown_) {
            eventStream_ = std::move(stream);
            return;
        }
    }
    stream->stop(); // torn down while the stream started
}

void NBFileObserver::tearDown() {
    std::shared_ptr<NBFileEventStream> stream;
    {
        std::lock_guard lock(mutex_);
        tornDown_ = true;
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

void NBFileObserver::deliverEvents(const std::weak_ptr<NBFileObserver>& weakObserver,
                                   const std::vector<NBFileSystemEvent>& events) {
    // Gone or being destroyed: the events are dropped.
    std::shared_ptr<NBFileObserver> observer = weakObserver.lock();
    if (!observer)
        return;
    for (const NBFileSystemEvent& event : events) {
        // Torn down meanwhile (by the previous event, or on another thread): the rest is dropped.
        if (!observer->eventStream())
            return;
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
