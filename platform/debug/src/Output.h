// A descriptor, standard error as a rule, as the place of log lines. A reader that does not read (a full pipe, a
// stopped terminal, a stuck journal) never holds the program for long: a line waits `patience` for it, and while the
// reader stays away the lines after it are dropped at once. The first line that gets through again is preceded by the
// number of lines lost.
//
// Threads: any. Lines of several threads do not mix.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

namespace dbg {

class Output {
 public:
    static constexpr std::chrono::milliseconds patience{2000};
    /// What all lines together wait for the reader during a shutdown.
    static constexpr std::chrono::milliseconds shutdownPatience{500};

    /// Follows the descriptor when something else is opened under its number.
    explicit Output(int descriptor) : descriptor_(descriptor) {}
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// `line` ends with its line break. `notice` turns a number of lost lines into a line of its own.
    template <typename Notice>
    void write(const std::string& line, Notice notice) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (lost_ > 0) {
            if (!put(notice(lost_), std::chrono::milliseconds(0))) {
                ++lost_;
                return;
            }
            lost_ = 0;
        }
        if (!put(line, patience)) ++lost_;
    }

    /// From now on, a line that waits already included, all lines together wait for `shutdownPatience`. Never blocks.
    void beginShutdown() { shuttingDown_ = true; }

 private:
    using Clock = std::chrono::steady_clock;

    // With mutex_ held.
    bool put(const std::string& text, std::chrono::milliseconds wait);
    void openTarget();
    void closeTarget();
    bool wait(Clock::time_point deadline, bool forRoom);
    std::size_t putSome(const char* text, std::size_t length, bool& mayRetry) const;

    const int descriptor_;
    std::atomic<bool> shuttingDown_{false};

    std::mutex mutex_;
    // Guarded by mutex_.
    std::size_t lost_ = 0;  // lines, since the reader stopped reading
    bool broken_ = false;   // the last line that was written ends in its middle
    std::chrono::milliseconds shutdownLeft_ = shutdownPatience;
    dev_t device_ = 0;  // what the descriptor stood for when it was looked at last
    ino_t node_ = 0;
    int nonBlocking_ = -1;  // an open file description of our own for it; -1: none can be had
};

}  // namespace dbg
