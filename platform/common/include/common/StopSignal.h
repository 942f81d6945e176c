// Tells long-running code that the process is shutting down. Any thread.
#pragma once

#include <chrono>

#include "common/ThreadSafety.h"

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
            const LockGuard lock(mutex_);
            if (stopped_) return;
            stopped_ = true;
            stoppedAt_ = Clock::now();
        }
        changed_.notifyAll();
    }

    bool isStopped() const {
        const LockGuard lock(mutex_);
        return stopped_;
    }

    /// Whether the grace period is over: running work must end now.
    bool isOverdue(Clock::time_point now = Clock::now()) const {
        const LockGuard lock(mutex_);
        return stopped_ && now - stoppedAt_ >= grace_;
    }

    /// Waits for stop(), up to `duration`. Returns whether it was called.
    bool waitFor(std::chrono::milliseconds duration) {
        const LockGuard lock(mutex_);
        return changed_.waitFor(mutex_, duration, [this]() REQUIRES(mutex_) { return stopped_; });
    }

 private:
    const std::chrono::milliseconds grace_ = grace;
    mutable Mutex mutex_;
    ConditionVariable changed_;
    bool stopped_ GUARDED_BY(mutex_) = false;
    Clock::time_point stoppedAt_ GUARDED_BY(mutex_);
};

}  // namespace common
