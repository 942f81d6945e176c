#include "System.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <system_error>
#include <utility>

#include "common/Signal.h"
#include "ipc/IPCException.h"

namespace ipc {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/// Returns getaddrinfo's result.
int lookUp(const std::string& host, const char* port, int flags, AddressList& found) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    const int result = getaddrinfo(host.c_str(), port, &hints, &list);
    found.reset(list);
    return result;
}

// Without the name services: they cost a fifth of a millisecond of each start, and a phone with a damaged hosts file
// must still reach its own broker. IPv4 first, because without IPv6 in the hosts file brokers listen there only, and
// any program may take their port at ::1.
std::vector<std::string> loopbackAddresses() {
    std::vector<std::string> addresses{"127.0.0.1"};
    const common::Descriptor socket(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool hasIPv6 =
        socket.get() >= 0 && ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (hasIPv6) addresses.emplace_back("::1");
    return addresses;
}

int millisecondsUntil(std::chrono::steady_clock::time_point time) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(time - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::max<milliseconds::rep>(left, 0));
}

}  // namespace

std::thread startThread(const char* name, std::function<void()> body) {
    const common::signal::AllBlocked blocked;
    try {
        auto named = [name, body = std::move(body)] {
            pthread_setname_np(pthread_self(), name);  // of another thread it takes a file of /proc
            body();
        };
        std::thread thread(std::move(named));
        return thread;
    } catch (const std::system_error& error) {
        throw IPCException(std::string("Cannot start a thread: ") + error.what());
    }
}

Waker::Waker() : event_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (event_.get() < 0) throw IPCException("Cannot create an event descriptor: " + common::reasonOf(errno));
}

void Waker::wake() const {
    const std::uint64_t one = 1;
    // A full counter means that a wake-up is pending already.
    [[maybe_unused]] const ssize_t written = ::write(event_.get(), &one, sizeof one);
}

void Waker::drain() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = ::read(event_.get(), &count, sizeof count);
}

SocketWait::SocketWait(const Waker& waker)
    : waker_(waker),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
    const auto watches = [this](int descriptor) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
    };
    // In this order, so that errno is that of the first failure.
    if (epoll_.get() < 0 || timer_.get() < 0 || !watches(waker_.descriptor()) || !watches(timer_.get())) {
        throw IPCException("Cannot create an event descriptor: " + common::reasonOf(errno));
    }
}

bool SocketWait::watch(int socket, short events) {
    if (isWatched_ && socket == socket_ && events == events_) return true;
    // EPOLL_CTL_MOD is not allowed with EPOLLEXCLUSIVE.
    if (socket == socket_) unwatch();
    socket_ = socket;
    events_ = events;
    epoll_event event{};
    event.events = EPOLLEXCLUSIVE | static_cast<std::uint32_t>(events);
    event.data.fd = socket;
    isWatched_ = epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, socket, &event) == 0;
    return isWatched_;
}

void SocketWait::unwatch() {
    if (isWatched_) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, socket_, nullptr);
    isWatched_ = false;
}

short SocketWait::wait(std::chrono::steady_clock::time_point until) {
    // A time-out of epoll_wait would be set and cancelled with each wait, which takes as long as two reads. As most
    // waits end early, the timer is left running for the next one; if it fires too soon, the caller waits again.
    if (!timerEnd_ || until < *timerEnd_) setTimer(until);
    epoll_event happened[3] = {};
    const int count = epoll_wait(epoll_.get(), happened, 3, -1);
    short events = 0;
    for (int index = 0; index < count; ++index) {
        if (happened[index].data.fd == waker_.descriptor()) {
            waker_.drain();
        } else if (happened[index].data.fd == timer_.get()) {
            timerEnd_.reset();
        } else {
            events = static_cast<short>(happened[index].events);
        }
    }
    return events;
}

/// Setting the timer also makes it unreadable.
void SocketWait::setTimer(std::chrono::steady_clock::time_point until) {
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    // A time of 0 would stop the timer.
    const auto left = std::max<nanoseconds>(until - std::chrono::steady_clock::now(), nanoseconds(1));
    const auto whole = std::chrono::duration_cast<seconds>(left);
    itimerspec time{};
    time.it_value.tv_sec = whole.count();
    time.it_value.tv_nsec = static_cast<long>((left - whole).count());
    timerfd_settime(timer_.get(), 0, &time, nullptr);
    timerEnd_ = until;
}

short SocketWait::ready() const {
    epoll_event present[3] = {};
    const int count = epoll_wait(epoll_.get(), present, 3, 0);
    short events = 0;
    for (int index = 0; index < count; ++index) {
        const int descriptor = present[index].data.fd;
        const bool isSocket = descriptor != waker_.descriptor() && descriptor != timer_.get();
        if (isSocket) events = static_cast<short>(present[index].events);
    }
    return events;
}

short SocketWait::poll(std::chrono::steady_clock::time_point until) const {
    pollfd watched[2] = {{socket_, events_, 0}, {waker_.descriptor(), POLLIN, 0}};
    if (::poll(watched, 2, millisecondsUntil(until)) <= 0) return 0;
    if (watched[1].revents != 0) waker_.drain();
    return watched[0].revents;
}

std::vector<std::string> resolve(const Address& address, std::string& failure) {
    if (address.host == "localhost") return loopbackAddresses();
    AddressList found(nullptr, &freeaddrinfo);
    const int result = lookUp(address.host, nullptr, 0, found);
    if (result != 0) failure = gai_strerror(result);
    std::vector<std::string> numeric;
    for (const addrinfo* each = found.get(); each != nullptr; each = each->ai_next) {
        char host[NI_MAXHOST];
        if (getnameinfo(each->ai_addr, each->ai_addrlen, host, sizeof host, nullptr, 0, NI_NUMERICHOST) == 0) {
            numeric.emplace_back(host);
        }
    }
    return numeric;
}

std::optional<std::string> probe(const std::string& numericAddress, int port,
                                 std::chrono::steady_clock::time_point deadline, int cancel) {
    AddressList found(nullptr, &freeaddrinfo);
    const int result = lookUp(numericAddress, std::to_string(port).c_str(), AI_NUMERICHOST | AI_NUMERICSERV, found);
    if (result != 0) return std::string(gai_strerror(result));

    const common::Descriptor tried(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (tried.get() < 0) return common::reasonOf(errno);
    if (connect(tried.get(), found->ai_addr, found->ai_addrlen) == 0) return std::string();
    if (errno != EINPROGRESS) return common::reasonOf(errno);

    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd watched[2] = {{tried.get(), POLLOUT, 0}, {cancel, POLLIN, 0}};
    poll(watched, 2, static_cast<int>(std::max<milliseconds::rep>(left, 0)));
    if (watched[0].revents == 0 && watched[1].revents != 0) return std::nullopt;
    if (watched[0].revents == 0) return std::string("the broker does not answer");
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(tried.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error == 0 ? std::string() : common::reasonOf(error);
}

}  // namespace ipc
