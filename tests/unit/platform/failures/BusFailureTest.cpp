// What the bus client needs of the system, when it is refused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "FailingCalls.h"
#include "System.h"
#include "fakes/FewDescriptors.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"

namespace {

using common::Descriptor;
using failing::Call;
using failing::Calls;
using fakes::FewDescriptors;
using Clock = std::chrono::steady_clock;

std::string failure(const std::function<void()>& action) {
    try {
        action();
    } catch (const ipc::IPCException& error) {
        return error.what();
    }
    return "";
}

// A port of 127.0.0.1 on which somebody listens, or has just ceased to.
class Port {
 public:
    explicit Port(int backlog) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (::bind(socket_.get(), generic, length) != 0 || ::listen(socket_.get(), backlog) != 0) return;
        ::getsockname(socket_.get(), generic, &length);
        number_ = ntohs(address.sin_port);
    }
    int number() const { return number_; }
    void close() { socket_.close(); }

 private:
    Descriptor socket_;
    int number_ = 0;
};

TEST(BusWithoutDescriptors, SaysWhatItCannotCreate) {
    if (failing::sanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors";
    const std::string expected = "Cannot create an event descriptor: Too many open files";
    const ipc::Waker waker;
    {
        const FewDescriptors one(1);
        EXPECT_EQ(failure([&] { const ipc::SocketWait wait(waker); }), expected) << "without its timer";
    }
    const FewDescriptors none(0);
    EXPECT_EQ(failure([] { const ipc::Waker another; }), expected);
    EXPECT_EQ(failure([&] { const ipc::SocketWait wait(waker); }), expected);
    EXPECT_EQ(ipc::probe("127.0.0.1", 1, Clock::now(), waker.descriptor()), "Too many open files");
}

TEST(BusWithoutThreads, SaysThatItCannotStartOne) {
    const Calls none(Call::pthread_create, EAGAIN);
    EXPECT_EQ(failure([] { ipc::startThread("test", [] {}); }),
              "Cannot start a thread: Resource temporarily unavailable");
}

TEST(BusWithoutThreads, ConnectingFailsAndTheClientCanBeDestroyed) {
    const auto client = ipc::IPCFactory::createInstanceShared("client", "127.0.0.1:1", true);
    const Calls none(Call::pthread_create, EAGAIN, 10);
    EXPECT_EQ(failure([&] { client->connect(""); }), "Cannot start a thread: Resource temporarily unavailable");
}

TEST(Probe, HasTheReason) {
    const ipc::Waker waker;
    const auto reason = [&](const std::string& address, int port) {
        return ipc::probe(address, port, Clock::now() + std::chrono::seconds(60), waker.descriptor())
            .value_or("cancelled");
    };
    Port port(1);
    ASSERT_GT(port.number(), 0);
    EXPECT_EQ(reason("127.0.0.1", port.number()), "");
    port.close();
    EXPECT_EQ(reason("127.0.0.1", port.number()), "Connection refused");
    EXPECT_EQ(reason("not-a-number", 1), ::gai_strerror(EAI_NONAME));
    EXPECT_NE(reason("255.255.255.255", 1), "");
}

TEST(Probe, OfABrokerThatDoesNotAnswerEndsInTimeOrWhenCancelled) {
    const Port port(0);
    ASSERT_GT(port.number(), 0);
    // The kernel answers until the queue is full.
    const ipc::Waker waker;
    std::array<Descriptor, 8> waiting;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port.number()));
    for (Descriptor& one : waiting) {
        one.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const int result = ::connect(one.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ASSERT_TRUE(result == 0 || errno == EINPROGRESS);
    }
    EXPECT_EQ(ipc::probe("127.0.0.1", port.number(), Clock::now(), waker.descriptor()), "the broker does not answer");
    waker.wake();
    EXPECT_EQ(ipc::probe("127.0.0.1", port.number(), Clock::now() + std::chrono::seconds(60), waker.descriptor()),
              std::nullopt);
}

TEST(Resolve, LocalhostNeedsNoHostsFile) {
    std::string reason;
    const Calls broken(Call::getaddrinfo, EAI_FAIL, 1);
    const std::vector<std::string> addresses = ipc::resolve({"localhost"}, reason);
    ASSERT_FALSE(addresses.empty());
    EXPECT_EQ(addresses.front(), "127.0.0.1");
    EXPECT_EQ(reason, "");
    EXPECT_TRUE(ipc::resolve({"broker.example"}, reason).empty());
    EXPECT_EQ(reason, ::gai_strerror(EAI_FAIL));
}

class SocketWaitTest : public testing::Test {
 protected:
    void SetUp() override {
        for (auto& pair : pairs) {
            std::array<int, 2> ends{};
            ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
            pair[0].reset(ends[0]);
            pair[1].reset(ends[1]);
        }
    }
    static Clock::time_point later() { return Clock::now() + std::chrono::seconds(60); }

    const ipc::Waker waker;
    ipc::SocketWait wait{waker};
    std::array<std::array<Descriptor, 2>, 2> pairs;
};

TEST_F(SocketWaitTest, PollsWhatCannotBeWatched) {
    const Descriptor file(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    ASSERT_FALSE(wait.watch(file.get(), POLLIN));
    EXPECT_EQ(wait.poll(later()), POLLIN);
}

TEST_F(SocketWaitTest, PollEndsInTimeOrWhenWoken) {
    ASSERT_TRUE(wait.watch(pairs[0][0].get(), POLLIN));
    EXPECT_EQ(wait.poll(Clock::now()), 0);
    waker.wake();
    EXPECT_EQ(wait.poll(later()), 0);
    pollfd wakeUp{waker.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&wakeUp, 1, 0), 0) << "the wake-up was not drained";
    ASSERT_EQ(::write(pairs[0][1].get(), "x", 1), 1);
    EXPECT_EQ(wait.poll(later()), POLLIN);
}

TEST_F(SocketWaitTest, FollowsToAnotherSocketAndOtherEvents) {
    ASSERT_TRUE(wait.watch(pairs[0][0].get(), POLLIN));
    ASSERT_TRUE(wait.watch(pairs[1][0].get(), POLLIN));
    ASSERT_EQ(::write(pairs[1][1].get(), "x", 1), 1);
    EXPECT_EQ(wait.wait(later()), POLLIN);
    ASSERT_TRUE(wait.watch(pairs[1][0].get(), POLLOUT));
    EXPECT_EQ(wait.wait(later()), POLLOUT);
}

}  // namespace
