// The file-observer module's private serial queue: one detached worker thread draining a FIFO of blocks.
#include "fileobserver/NBFileObserverSerialQueue.h"

#include <pthread.h>

NBFileObserverSerialQueue::NBFileObserverSerialQueue(const QString& label) : label_(label) {
    std::thread worker([this] { run(); });
    workerIdentifier_ = worker.get_id();
    // Thread names are limited to 15 bytes; the tail of the label is the distinctive part.
    QByteArray name = label_.toUtf8().right(15);
    pthread_setname_np(worker.native_handle(), name.constData());
    worker.detach();
}

void NBFileObserverSerialQueue::dispatchAsynchronously(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
        blocks_.push_back(std::move(block));
    }
    condition_.notify_all();
}

void NBFileObserverSerialQueue::dispatchSynchronously(const std::function<void()>& block) {
    if (isCurrentQueue()) {
        block();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneCondition;
    bool done = false;
    dispatchAsynchronously([&] {
        block();
        std::lock_guard lock(doneMutex);
        done = true;
        doneCondition.notify_all();
    });
    std::unique_lock lock(doneMutex);
    doneCondition.wait(lock, [&] { return done; });
}

bool NBFileObserverSerialQueue::isCurrentQueue() const {
    return std::this_thread::get_id() == workerIdentifier_;
}

void NBFileObserverSerialQueue::run() {
    for (;;) {
        std::function<void()> block;
        {
            std::unique_lock lock(mutex_);
            condition_.wait(lock, [this] { return !blocks_.empty(); });
            block = std::move(blocks_.front());
            blocks_.pop_front();
        }
        block();
    }
}
