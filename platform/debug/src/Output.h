// Writes log lines to a descriptor, usually standard error. If the reader stalls (a full pipe, a stopped terminal, a
// hung journal), one line waits up to `lineTimeout` and the lines after it are dropped at once. When the reader
// resumes, the next line is preceded by the number of lines lost.
//
// Threads: any. Lines of several threads are not interleaved.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>

#include "common/ThreadSafety.h"

namespace dbg {

class Output {
 public:
    static constexpr std::chrono::milliseconds lineTimeout{2000};
    /// For all lines together, once beginShutdown was called.
    static constexpr std::chrono::milliseconds shutdownTimeout{500};

    /// Does not own `descriptor`. Follows it if another file is opened under the same number; if it was a file, a
    /// stalled reader of the new one is waited for without a limit during the first second.
    explicit Output(int descriptor) : descriptor_(descriptor) {}
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// `line` must end with a line break. `notice(n)` must return the line that reports n lost lines.
    template <typename Notice>
    void write(const std::string& line, Notice notice) {
        const common::LockGuard lock(mutex_);
        if (lost_ > 0) {
            if (!writeAll(notice(lost_), std::chrono::milliseconds(0))) {
                ++lost_;
                return;
            }
            lost_ = 0;
        }
        if (!writeAll(line, lineTimeout)) ++lost_;
    }

    /// From now on all lines together, one that is waiting included, wait up to `shutdownTimeout`. Never blocks.
    void beginShutdown() { shuttingDown_ = true; }

 private:
    using Clock = std::chrono::steady_clock;

    bool writeAll(const std::string& text, std::chrono::milliseconds timeout) REQUIRES(mutex_);
    void openTarget(Clock::time_point now) REQUIRES(mutex_);
    void closeTarget() REQUIRES(mutex_);
    bool wait(Clock::time_point deadline, bool untilWritable) REQUIRES(mutex_);
    std::size_t writeSome(const char* text, std::size_t length, bool& mayRetry) REQUIRES(mutex_);

    const int descriptor_;
    std::atomic<bool> shuttingDown_{false};

    common::Mutex mutex_;
    std::size_t lost_ GUARDED_BY(mutex_) = 0;    // lines since the reader stalled
    bool truncated_ GUARDED_BY(mutex_) = false;  // the last line was not written to its end
    std::chrono::milliseconds shutdownLeft_ GUARDED_BY(mutex_) = shutdownTimeout;
    dev_t device_ GUARDED_BY(mutex_) = 0;  // of the file behind the descriptor at the last write
    ino_t inode_ GUARDED_BY(mutex_) = 0;
    Clock::time_point checkedAt_ GUARDED_BY(mutex_);
    bool isFile_ GUARDED_BY(mutex_) = false;  // never blocks
    bool isSocket_ GUARDED_BY(mutex_) = false;
    int nonBlocking_ GUARDED_BY(mutex_) = -1;  // a second, non-blocking descriptor for that file; -1: none
};

}  // namespace dbg
