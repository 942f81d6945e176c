// Tells code that waits or takes its time that the process is shutting down. Threads: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace common {

class StopSignal {
 public:
    using Clock = std::chrono::steady_clock;

    /// What work in hand may still take once the process is shutting down.
    static constexpr std::chrono::seconds grace{5};

    StopSignal() = default;
    explicit StopSignal(std::chrono::milliseconds ownGrace) : grace_(ownGrace) {}

    /// The first call counts.
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

    /// Whether the grace period is over: work that is still in hand must end now.
    bool isOverdue(Clock::time_point now = Clock::now()) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return stopped_ && now - stoppedAt_ >= grace_;
    }

    /// Waits until stop or the end of the duration; true when stopped.
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
