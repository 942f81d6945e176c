#include "Core/ProvisioningWatchdog/ProgressReporter.h"

#include "debug/Debug.h"

namespace zav {

void ProgressReporter::notifyProgress() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        progressAvailable_ = true;
    }
    signalled_.notify_one();
}

void ProgressReporter::resetProgress() {
    const std::lock_guard<std::mutex> lock(mutex_);
    progressAvailable_ = false;
}

void ProgressReporter::waitForProgress() {
    dbg::Debug::info() << "Waiting for progress" << std::endl;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        signalled_.wait(lock, [this] { return progressAvailable_ || released_; });
        progressAvailable_ = false;
    }
    // After unlocking: a slow log must not block notifyProgress.
    dbg::Debug::info() << "Progress consumed" << std::endl;
}

void ProgressReporter::release() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
    }
    signalled_.notify_all();
}

}  // namespace zav
