#include "Link.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace unixbus {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds firstPause{50};
constexpr milliseconds longestPause{2000};
constexpr milliseconds round{10000};
constexpr milliseconds lastWords{1000};

}  // namespace

Link::Link(std::string name, std::string willTopic, LinkListener& listener)
    : name_(std::move(name)), willTopic_(std::move(willTopic)), listener_(listener), wakeup_(eventfd(0, EFD_CLOEXEC)) {}

bool Link::open(const std::string& address, bool keepTrying) {
    path_ = pathOf(address);
    const int socket = connectTo(path_);
    if (socket < 0 && !keepTrying) return false;
    socket_ = socket;
    thread_ = std::thread([this] { run(); });
    return true;
}

void Link::wake() const { eventfd_write(wakeup_, 1); }

void Link::pause(milliseconds time) const {
    pollfd woken{wakeup_, POLLIN, 0};
    poll(&woken, 1, static_cast<int>(time.count()));
}

void Link::begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    up_ = true;
    pending_.push_back(encode({"hello", name_, willTopic_}));
}

void Link::send(const Frame& frame) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!up_) return;
    pending_.push_back(encode(frame));
    wake();
}

void Link::run() {
    milliseconds next = firstPause;
    while (!stopping_) {
        listener_.roundEnded();
        const int socket = socket_ >= 0 ? std::exchange(socket_, -1) : connectTo(path_);
        if (socket < 0) {
            pause(next);
            next = std::min(2 * next, longestPause);
            continue;
        }
        next = firstPause;
        listener_.linkUp();
        serve(socket);
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            up_ = false;
            pending_.clear();
        }
        ::close(socket);
        if (!stopping_) listener_.linkDown();
    }
}

void Link::serve(int socket) {
    std::string received;
    Frame frame;
    Clock::time_point end = Clock::time_point::max();
    for (bool open = true; open && Clock::now() < end;) {
        std::unique_lock<std::mutex> lock(mutex_);
        open = flush(socket, pending_);
        if (stopping_ && pending_.empty()) return;
        if (stopping_) end = std::min(end, Clock::now() + lastWords);
        const auto events = static_cast<short>(POLLIN | (pending_.empty() ? 0 : POLLOUT));
        lock.unlock();
        pollfd watched[2] = {{socket, events, 0}, {stopping_ ? -1 : wakeup_, POLLIN, 0}};
        poll(watched, 2, static_cast<int>(stopping_ ? milliseconds(50).count() : round.count()));
        eventfd_t count = 0;
        if (watched[1].revents != 0) eventfd_read(wakeup_, &count);
        open = open && receive(socket, received);
        while (decode(received, frame)) listener_.frameArrived(frame);
        listener_.roundEnded();
    }
}

void Link::close() {
    stopping_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
    if (wakeup_ >= 0) ::close(std::exchange(wakeup_, -1));
}

}  // namespace unixbus
