// Waiting for the results of an asynchronous query: the synchronous query forms of the indexes hand the
// collector's result block to the query and wait on it, bounded by a time-out.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

// `Results` is what each call of a result block carries: every result found so far, so the last call
// holds everything.
template <typename Results> class NBSearchResultCollector {
public:
    NBSearchResultCollector() : state_(std::make_shared<State>()) {}

    // The block to give the query. It keeps the latest results, and once the wait has run out it asks the
    // query to stop.
    std::function<bool(const Results&, bool)> resultBlock() const {
        return [state = state_](const Results& results, bool moreFollow) {
            std::lock_guard lock(state->mutex);
            state->results = results;
            if (!moreFollow) {
                state->done = true;
                state->finished.notify_all();
            }
            return !state->abandoned;
        };
    }

    // Waits until the last call came, at most `timeout` seconds, and returns the results received by then.
    Results waitForResults(double timeout, bool* didTimeout) {
        std::unique_lock lock(state_->mutex);
        // A time-out of more than about thirty years is as good as none, and stays within the clock's range.
        const auto wait = std::chrono::duration<double>(std::clamp(timeout, 0.0, 1e9));
        const bool finished = state_->finished.wait_for(
            lock, std::chrono::duration_cast<std::chrono::nanoseconds>(wait), [&] { return state_->done; });
        state_->abandoned = !finished;
        if (didTimeout)
            *didTimeout = !finished;
        return state_->results;
    }

private:
    // Shared with the block, which may still run after the wait ran out.
    struct State {
        std::mutex mutex;
        std::condition_variable finished;
        Results results;
        bool done = false;
        bool abandoned = false;
    };
    std::shared_ptr<State> state_;
};
