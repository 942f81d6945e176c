#include "Environment.h"

namespace zavctl {

void StopSignal::set() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        set_ = true;
    }
    changed_.notify_all();
}

void StopSignal::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return set_; });
}

}  // namespace zavctl
