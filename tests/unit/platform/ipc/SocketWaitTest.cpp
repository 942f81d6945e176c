// Waits for a socket on which other objects wait too.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "BusFixtures.h"
#include "System.h"
#include "common/Descriptor.h"

namespace {

using bustest::patience;
using Clock = std::chrono::steady_clock;
using std::chrono::hours;
using std::chrono::milliseconds;

/// A socket and its peer.
struct Ends {
    Ends() {
        int both[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both), 0);
        socket.reset(both[0]);
        peer.reset(both[1]);
    }
    void send(const std::string& bytes) const {
        EXPECT_EQ(::send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void readAll() const {
        char bytes[64];
        while (recv(socket.get(), bytes, sizeof bytes, 0) > 0) {
        }
    }

    common::Descriptor socket;
    common::Descriptor peer;
};

bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string word;
    while (file >> word && word.back() != ')') {
    }
    file >> word;
    return word == "S";
}

TEST(SocketWait, EndsWhenItIsTime) {
    const ipc::Waker waker;
    ipc::SocketWait wait(waker);
    waker.wake();
    EXPECT_EQ(wait.wait(Clock::now() + hours(1)), 0) << "leaves a timer running";
    for (const auto length : {milliseconds(20), milliseconds(40)}) {
        const auto until = Clock::now() + length;
        EXPECT_EQ(wait.wait(until), 0);
        EXPECT_GE(Clock::now(), until);
    }
    EXPECT_EQ(wait.wait(Clock::now() - hours(1)), 0) << "a time that has passed";
}

TEST(SocketWait, OutlastsTheTimerOfAnEarlierWait) {
    const ipc::Waker waker;
    const Ends ends;
    ipc::SocketWait wait(waker);
    ASSERT_TRUE(wait.watch(ends.socket.get(), POLLIN));
    waker.wake();
    EXPECT_EQ(wait.wait(Clock::now() + milliseconds(20)), 0);
    const auto until = Clock::now() + milliseconds(60);
    int returns = 0;
    for (; Clock::now() < until; ++returns) EXPECT_EQ(wait.wait(until), 0);
    EXPECT_LE(returns, 2) << "the timer of the first wait is reported once";
    ends.send("x");
    EXPECT_EQ(wait.wait(Clock::now() + patience), POLLIN);
}

TEST(SocketWait, ReadyReportsTheSocketOnlyAndLeavesTheWakeUp) {
    const ipc::Waker waker;
    const Ends ends;
    ipc::SocketWait wait(waker);
    ASSERT_TRUE(wait.watch(ends.socket.get(), POLLIN));
    waker.wake();
    EXPECT_EQ(wait.ready(), 0);
    ends.send("x");
    EXPECT_EQ(wait.ready(), POLLIN);
    EXPECT_EQ(wait.ready(), POLLIN) << "until it is read";
    ends.readAll();
    EXPECT_EQ(wait.ready(), 0);
    const auto until = Clock::now() + patience;
    EXPECT_EQ(wait.wait(until), 0);
    EXPECT_LT(Clock::now(), until) << "the wake-up is lost";
}

TEST(SocketWait, ReadyReportsTheEnd) {
    const ipc::Waker waker;
    Ends ends;
    ipc::SocketWait wait(waker);
    ASSERT_TRUE(wait.watch(ends.socket.get(), POLLIN));
    ends.send("x");
    ends.peer.close();
    ends.readAll();
    EXPECT_NE(wait.ready() & POLLIN, 0);
}

TEST(SocketWait, WatchingAnewReportsWhatOnlyAnotherOneWasToldOf) {
    const ipc::Waker waker;
    const Ends ends;
    ipc::SocketWait first(waker);
    ipc::SocketWait second(waker);
    ASSERT_TRUE(first.watch(ends.socket.get(), POLLIN));
    ASSERT_TRUE(second.watch(ends.socket.get(), POLLIN));
    std::atomic<pid_t> identifier{0};
    std::thread reader([&] {
        identifier = gettid();
        EXPECT_EQ(first.wait(Clock::now() + patience), POLLIN);
    });
    // If it is not waiting yet, the event is for both.
    const auto limit = Clock::now() + patience;
    while ((identifier == 0 || !isAsleep(identifier)) && Clock::now() < limit) std::this_thread::yield();
    ends.send("x");
    reader.join();
    second.unwatch();
    ASSERT_TRUE(second.watch(ends.socket.get(), POLLIN));
    EXPECT_EQ(second.ready(), POLLIN);
    EXPECT_EQ(second.wait(Clock::now() + patience), POLLIN);
}

TEST(SocketWait, PollsWhatCannotBeWatched) {
    const ipc::Waker waker;
    ipc::SocketWait wait(waker);
    // The system refuses to watch a file, as it would refuse a socket without memory; poll calls it ready.
    const common::Descriptor file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(wait.watch(file.get(), POLLIN));
    EXPECT_EQ(wait.poll(Clock::now() + patience), POLLIN);
    EXPECT_FALSE(wait.watch(file.get(), POLLIN)) << "not tried again";
    waker.wake();
    EXPECT_EQ(wait.wait(Clock::now() + patience), 0);
}

}  // namespace
