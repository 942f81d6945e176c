#include "Core/ProvisioningWatchdog/ProgressReporter.h"

#include "debug/Debug.h"

namespace zav {

void ProgressReporter::notifyProgress() {
    {
        const common::LockGuard lock(mutex_);
        progressAvailable_ = true;
    }
    signalled_.notifyOne();
}

void ProgressReporter::resetProgress() {
    const common::LockGuard lock(mutex_);
    progressAvailable_ = false;
}

void ProgressReporter::waitForProgress() {
    dbg::Debug::info() << "Waiting for progress" << std::endl;
    {
        const common::LockGuard lock(mutex_);
        signalled_.wait(mutex_, [this]() REQUIRES(mutex_) { return progressAvailable_ || released_; });
        progressAvailable_ = false;
    }
    // After unlocking: a slow log must not block notifyProgress.
    dbg::Debug::info() << "Progress consumed" << std::endl;
}

void ProgressReporter::release() {
    {
        const common::LockGuard lock(mutex_);
        released_ = true;
    }
    signalled_.notifyAll();
}

}  // namespace zav
