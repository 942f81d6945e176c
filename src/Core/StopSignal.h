// "The process is ending", for those who wait: a flag that can be waited on. Threads: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zav {

class StopSignal {
 public:
    void stop() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stopped_ = true;
        }
        changed_.notify_all();
    }

    bool isStopped() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return stopped_;
    }

    /// Waits until stop or the end of the duration; true when stopped.
    bool waitFor(std::chrono::milliseconds duration) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, duration, [this] { return stopped_; });
    }

 private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopped_ = false;  // guarded by mutex_
};

}  // namespace zav
