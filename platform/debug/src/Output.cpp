#include "Output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace dbg {

namespace {

// A shutdown is noticed this late at most, and a reader that takes less than we write is asked again.
constexpr std::chrono::milliseconds waitedAtOnce{100};
constexpr std::chrono::milliseconds retryPause{10};

}  // namespace

Output::~Output() { closeTarget(); }

void Output::closeTarget() {
    if (nonBlocking_ >= 0) ::close(nonBlocking_);
    nonBlocking_ = -1;
}

// A terminal that has room for one byte is ready, and a longer write to it blocks; so does a pipe that another process
// fills between our look and our write. The flag that prevents this belongs to the open file description, which we may
// share with others, so we open one of our own. A regular file never blocks, and must keep its shared offset; a socket
// has a flag for each call.
void Output::openTarget() {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0) return;
    if (status.st_dev == device_ && status.st_ino == node_) return;
    closeTarget();
    device_ = status.st_dev;
    node_ = status.st_ino;
    if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor_);
    nonBlocking_ = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// False when the descriptor did not take all of it.
bool Output::put(const std::string& text, std::chrono::milliseconds wait) {
    openTarget();
    const auto deadline = Clock::now() + wait;
    const std::string whole = broken_ ? "\n" + text : text;
    std::size_t written = 0;
    while (written < whole.size() && this->wait(deadline, true)) {
        bool mayRetry = false;
        const std::size_t some = putSome(whole.data() + written, whole.size() - written, mayRetry);
        written += some;
        if (some == 0 && !(mayRetry && this->wait(deadline, false))) break;
    }
    if (written > 0) broken_ = written < whole.size();
    return written == whole.size();
}

// Waits until there is room, or else just for a moment; false once the deadline or a shutdown's patience is over.
bool Output::wait(Clock::time_point deadline, bool forRoom) {
    using std::chrono::milliseconds;
    pollfd waited{nonBlocking_ >= 0 ? nonBlocking_ : descriptor_, POLLOUT, 0};
    const nfds_t count = forRoom ? 1 : 0;
    if (forRoom && ::poll(&waited, count, 0) > 0) return true;
    for (;;) {
        const auto begin = Clock::now();
        auto slice = std::min(forRoom ? waitedAtOnce : retryPause, std::chrono::ceil<milliseconds>(deadline - begin));
        if (shuttingDown_) slice = std::min(slice, shutdownLeft_);
        if (slice.count() <= 0) return false;
        const int ready = ::poll(&waited, count, static_cast<int>(slice.count()));
        if (shuttingDown_) {
            shutdownLeft_ -= std::min(shutdownLeft_, std::chrono::ceil<milliseconds>(Clock::now() - begin));
        }
        if (ready > 0 || !forRoom) return true;
    }
}

// How much was taken. When nothing was, `mayRetry` tells whether that can change.
std::size_t Output::putSome(const char* text, std::size_t length, bool& mayRetry) const {
    ssize_t written = -1;
    if (nonBlocking_ >= 0) {
        written = ::write(nonBlocking_, text, length);
    } else {
        written = ::send(descriptor_, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written < 0 && errno == ENOTSOCK) {
            written = ::write(descriptor_, text, std::min<std::size_t>(length, PIPE_BUF));
        }
    }
    mayRetry = written < 0 && (errno == EINTR || errno == EAGAIN);
    return written < 0 ? 0 : static_cast<std::size_t>(written);
}

}  // namespace dbg
