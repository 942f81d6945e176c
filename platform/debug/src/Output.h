// Standard error as the place of log lines. A reader that does not read (a full pipe, a stopped terminal, a stuck
// journal) never holds the program for long: a line waits `patience` for it, and while the reader stays away the lines
// after it are dropped at once. The first line that gets through again is preceded by the number of lines lost.
//
// Threads: any. Lines of several threads do not mix.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

namespace dbg {

class Output {
 public:
    static constexpr std::chrono::milliseconds patience{2000};

    explicit Output(int descriptor) : descriptor_(descriptor) {}
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
        if (!put(line, allowance())) ++lost_;
    }

    /// From now on all lines together wait half a second at most.
    void beginShutdown();

 private:
    std::chrono::milliseconds allowance();
    bool put(const std::string& text, std::chrono::milliseconds wait);
    bool waitForRoom(std::chrono::milliseconds wait);
    std::size_t putSome(const char* text, std::size_t length);

    const int descriptor_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::size_t lost_ = 0;  // lines, since the reader stopped reading
    bool broken_ = false;   // the last line that was written ends in its middle
    bool shuttingDown_ = false;
    std::chrono::milliseconds left_{0};  // of the waits during a shutdown
};

}  // namespace dbg
