// Tells code that waits or takes its time that the process is shutting down. Threads: any.
#pragma once

#include <chrono>

#include "common/ThreadSafety.h"

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

    /// Whether the grace period is over: work that is still in hand must end now.
    bool isOverdue(Clock::time_point now = Clock::now()) const {
        const LockGuard lock(mutex_);
        return stopped_ && now - stoppedAt_ >= grace_;
    }

    /// Waits until stop or the end of the duration; true when stopped.
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
