// Tells long-running code that the process is shutting down. Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace common {

class StopSignal {
 public:
    using Clock = std::chrono::steady_clock;

    /// The default grace period: how long running work may continue after stop().
    static constexpr std::chrono::seconds grace{5};

    StopSignal() = default;
    explicit StopSignal(std::chrono::milliseconds gracePeriod) : grace_(gracePeriod) {}

    /// Starts the grace period and ends all waits, for good. Further calls do nothing.
    void stop() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (stopped_) return;
            stopped_ = true;
            stoppedAt_ = Clock::now();
        }
        changed_.notify_all();
    }

    bool isStopped() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return stopped_;
    }

    /// Whether the grace period is over: running work must end now.
    bool isOverdue(Clock::time_point now = Clock::now()) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return stopped_ && now - stoppedAt_ >= grace_;
    }

    /// Waits for stop(), up to `duration`. Returns whether it was called.
    bool waitFor(std::chrono::milliseconds duration) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, duration, [this] { return stopped_; });
    }

 private:
    const std::chrono::milliseconds grace_ = grace;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool stopped_ = false;         // guarded by mutex_
    Clock::time_point stoppedAt_;  // guarded by mutex_
};

}  // namespace common
