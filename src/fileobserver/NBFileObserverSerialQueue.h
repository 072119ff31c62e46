// A small labelled serial queue private to the file-observer module.
//
// The event center's map and the set of live file observers are each touched only on their own serial
// queue. The module does not build on the dispatch module (it sits beside it), so it carries this minimal
// queue: one worker thread runs the blocks in the order they were submitted. A synchronous dispatch waits
// until every block submitted before it has run and then runs its block on the worker; a synchronous dispatch
// made from the queue's own worker runs at once, so a block that calls back into its owner cannot deadlock.
// The queues of this module live as long as the process (they are created once and never destroyed), which
// is why the worker is detached.
#pragma once

#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class NBFileObserverSerialQueue {
public:
    explicit NBFileObserverSerialQueue(const QString& label);
    NBFileObserverSerialQueue(const NBFileObserverSerialQueue&) = delete;
    NBFileObserverSerialQueue& operator=(const NBFileObserverSerialQueue&) = delete;

    const QString& label() const { return label_; }
    void dispatchAsynchronously(std::function<void()> block);
    void dispatchSynchronously(const std::function<void()>& block);
    bool isCurrentQueue() const;

private:
    void run();

    QString label_;
    std::mutex mutex_;
    std::condition_variable condition_;
    std::deque<std::function<void()>> blocks_;
    std::thread::id workerIdentifier_;
};
