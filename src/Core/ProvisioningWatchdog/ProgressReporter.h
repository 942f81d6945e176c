// The hand-off by which a running pass tells one waiting thread that something happened. It carries no value: any
// number of signals between two waits are one.
//
// Threads: the pass notifies; the watchdog's delivery thread waits, or the pass around a nested one; whoever starts a
// pass resets. A signal wakes one waiter: the worker wakes the others when the pass has ended.
#pragma once

#include <condition_variable>
#include <mutex>

namespace zav {

class ProgressReporter {
 public:
    void notifyProgress();

    /// Drops a signal that is left over from an earlier pass.
    void resetProgress();

    /// Blocks until there is a signal and consumes it. Waits for ever unless there is one, or `release` is called.
    void waitForProgress();

    /// From now on no wait blocks: the process is ending.
    void release();

 private:
    std::mutex mutex_;
    std::condition_variable signalled_;
    bool progressAvailable_ = false;  // guarded by mutex_
    bool released_ = false;           // guarded by mutex_
};

}  // namespace zav
