#include "Output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace dbg {

namespace {

constexpr std::chrono::milliseconds pollInterval{100};  // within which a waiting line sees beginShutdown
constexpr std::chrono::milliseconds retryPause{10};     // before a write that wrote nothing is repeated
constexpr std::chrono::seconds checkInterval{1};

/// The time of the last tick, at most 10 ms ago: exact enough for each line, in a fifth of the time.
std::chrono::steady_clock::time_point lastTick() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                                 std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace

Output::~Output() { closeTarget(); }

void Output::closeTarget() {
    if (nonBlocking_ >= 0) ::close(nonBlocking_);
    nonBlocking_ = -1;
}

// After poll reports a terminal or pipe as writable, a write can still block: a terminal with room for one byte is
// writable, and another process may fill the pipe in between. O_NONBLOCK would prevent it, but belongs to the open file
// description, which other processes may share, so open a second description. Regular files never block, and their
// offset must stay shared. Sockets have MSG_DONTWAIT.
//
// Lines reach a file or socket that was opened under the same number anyway, so these are checked now and then only:
// Linux 6.13 and later write a file's times with each write that follows an fstat, which doubles the cost of a line.
void Output::openTarget(Clock::time_point now) {
    if ((isFile_ || isSocket_) && now < checkedAt_ + checkInterval) return;
    checkedAt_ = now;
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0) return;
    if (status.st_dev == device_ && status.st_ino == inode_) return;
    closeTarget();
    device_ = status.st_dev;
    inode_ = status.st_ino;
    isFile_ = S_ISREG(status.st_mode);
    isSocket_ = S_ISSOCK(status.st_mode);
    if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor_);
    nonBlocking_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// Returns false if part of the text was not written.
bool Output::writeAll(const std::string& text, std::chrono::milliseconds timeout) {
    const auto now = lastTick();
    openTarget(now);
    const auto deadline = now + timeout;
    const std::string afterTruncated = truncated_ ? "\n" + text : std::string();
    const std::string& whole = truncated_ ? afterTruncated : text;
    std::size_t written = 0;
    bool mayRetry = false;
    // A socket says itself whether it has room, so ask it first only after a loss: while its reader is stalled, a short
    // line may still fit, and the line after it would wait for the full time-out again.
    if (isSocket_ && lost_ == 0) written = writeSome(whole.data(), whole.size(), mayRetry);
    while (written < whole.size() && (isFile_ || wait(deadline, true))) {
        const std::size_t count = writeSome(whole.data() + written, whole.size() - written, mayRetry);
        written += count;
        if (count == 0 && !(mayRetry && wait(deadline, false))) break;
    }
    if (written > 0) truncated_ = written < whole.size();
    return written == whole.size();
}

// Waits until the descriptor is writable, or else for `retryPause`. Returns false after the deadline, and during a
// shutdown once `shutdownTimeout` is used up.
bool Output::wait(Clock::time_point deadline, bool untilWritable) {
    using std::chrono::milliseconds;
    pollfd waited{nonBlocking_ >= 0 ? nonBlocking_ : descriptor_, POLLOUT, 0};
    const nfds_t count = untilWritable ? 1 : 0;
    if (untilWritable && ::poll(&waited, count, 0) > 0) return true;
    for (;;) {
        const auto begin = Clock::now();
        auto slice =
            std::min(untilWritable ? pollInterval : retryPause, std::chrono::ceil<milliseconds>(deadline - begin));
        if (shuttingDown_) slice = std::min(slice, shutdownLeft_);
        if (slice.count() <= 0) return false;
        const int ready = ::poll(&waited, count, static_cast<int>(slice.count()));
        if (shuttingDown_) {
            shutdownLeft_ -= std::min(shutdownLeft_, std::chrono::ceil<milliseconds>(Clock::now() - begin));
        }
        if (ready > 0 || !untilWritable) return true;
    }
}

// Returns the number of bytes written. If it is 0, sets `mayRetry` to whether a later call may succeed.
std::size_t Output::writeSome(const char* text, std::size_t length, bool& mayRetry) {
    ssize_t written = -1;
    if (nonBlocking_ >= 0) {
        written = ::write(nonBlocking_, text, length);
    } else {
        if (isSocket_) {
            written = ::send(descriptor_, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        } else {
            written = ::write(descriptor_, text, std::min<std::size_t>(length, PIPE_BUF));
        }
    }
    mayRetry = written < 0 && (errno == EINTR || errno == EAGAIN || errno == ENOTSOCK);
    if (written < 0 && errno == ENOTSOCK) openTarget(checkedAt_ + checkInterval);
    return written < 0 ? 0 : static_cast<std::size_t>(written);
}

}  // namespace dbg
