// Signal from a running pass to one waiting thread that the pass makes progress. Signals between two waits count as
// one.
//
// Threads: the pass thread notifies; the watchdog's delivery thread waits, or the outer pass of a nested one; the
// thread that starts a pass resets. A signal wakes one waiter; the worker wakes the others when the pass has ended.
#pragma once

#include "common/ThreadSafety.h"

namespace zav {

class ProgressReporter {
 public:
    void notifyProgress();

    /// Drops a signal that an earlier pass left.
    void resetProgress();

    /// Blocks until a signal arrives, and consumes it, or until `release` is called.
    void waitForProgress();

    /// Ends all waits, now and later. For shutdown.
    void release();

 private:
    common::Mutex mutex_;
    common::ConditionVariable signalled_;
    bool progressAvailable_ GUARDED_BY(mutex_) = false;
    bool released_ GUARDED_BY(mutex_) = false;
};

}  // namespace zav
