#include "Output.h"

#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace dbg {

namespace {

constexpr std::chrono::milliseconds shutdownPatience{500};

}  // namespace

void Output::beginShutdown() {
    const std::lock_guard<std::mutex> lock(mutex_);
    shuttingDown_ = true;
    left_ = shutdownPatience;
}

std::chrono::milliseconds Output::allowance() { return shuttingDown_ ? left_ : patience; }

// False when the descriptor did not take all of it.
bool Output::put(const std::string& text, std::chrono::milliseconds wait) {
    const std::string whole = broken_ ? "\n" + text : text;
    std::size_t written = 0;
    while (written < whole.size()) {
        if (!waitForRoom(wait)) break;
        const std::size_t some = putSome(whole.data() + written, whole.size() - written);
        if (some == 0) break;
        written += some;
    }
    if (written > 0) broken_ = written < whole.size();
    return written == whole.size();
}

bool Output::waitForRoom(std::chrono::milliseconds wait) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    pollfd waited{descriptor_, POLLOUT, 0};
    int ready = poll(&waited, 1, 0);
    while (ready <= 0 && (ready == 0 || errno == EINTR)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(begin + wait - Clock::now());
        if (left.count() <= 0) break;
        ready = poll(&waited, 1, static_cast<int>(left.count()));
    }
    if (shuttingDown_) {
        left_ -= std::min(left_, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin));
    }
    return ready > 0;
}

// How much was taken; 0 when nothing was or ever will be.
std::size_t Output::putSome(const char* text, std::size_t length) {
    for (;;) {
        ssize_t written = ::send(descriptor_, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        // A pipe that is ready has room for this much, and so does not block.
        if (written < 0 && errno == ENOTSOCK)
            written = ::write(descriptor_, text, std::min<std::size_t>(length, PIPE_BUF));
        if (written < 0 && (errno == EINTR)) continue;
        return written < 0 ? 0 : static_cast<std::size_t>(written);
    }
}

}  // namespace dbg
