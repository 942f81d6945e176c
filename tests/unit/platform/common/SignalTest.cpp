#include "common/Signal.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

std::mutex mutex;
std::condition_variable changed;
std::vector<int> received;        // guarded by mutex
std::thread::id receivingThread;  // guarded by mutex

void remember(int signal) {
    const std::lock_guard<std::mutex> lock(mutex);
    received.push_back(signal);
    receivingThread = std::this_thread::get_id();
    changed.notify_all();
}

bool waitForSignals(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(30), [&] { return received.size() >= count; });
}

TEST(SignalTest, HandlersRunOnTheReceivingThread) {
    {
        const auto receiver = common::signal::registerHandler();
        common::signal::registerCustomHandler(SIGTERM, remember);
        common::signal::registerCustomHandler(SIGUSR1, remember);
        kill(getpid(), SIGTERM);
        ASSERT_TRUE(waitForSignals(1));
        kill(getpid(), SIGUSR1);
        ASSERT_TRUE(waitForSignals(2));
        const std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(received, (std::vector<int>{SIGTERM, SIGUSR1}));
        EXPECT_NE(receivingThread, std::this_thread::get_id());
    }
    // Without the receiver the signal stays blocked.
    kill(getpid(), SIGTERM);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGTERM), 1);
    EXPECT_EQ(received.size(), 2U);
}

TEST(SignalTest, SignalRegisteredLastNeverTakesItsDefaultAction) {
    sigset_t last;
    sigemptyset(&last);
    sigaddset(&last, SIGUSR2);
    for (int round = 0; round < 200; ++round) {
        pthread_sigmask(SIG_UNBLOCK, &last, nullptr);
        {
            const std::lock_guard<std::mutex> lock(mutex);
            received.clear();
        }
        const auto receiver = common::signal::registerHandler();
        common::signal::registerCustomHandler(SIGUSR1, remember);  // starts the thread
        common::signal::registerCustomHandler(SIGUSR2, remember);
        kill(getpid(), SIGUSR2);
        ASSERT_TRUE(waitForSignals(1));
    }
}

TEST(SignalTest, RegisterHandlerRestoresAnIgnoredSigchld) {
    const auto before = signal(SIGCHLD, SIG_IGN);
    const auto receiver = common::signal::registerHandler();
    EXPECT_EQ(signal(SIGCHLD, before), SIG_DFL);
}

TEST(SignalTest, WritingToAClosedPipeFailsWithEpipe) {
    const auto receiver = common::signal::registerHandler();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}

TEST(SignalTest, CustomHandlerRequiresRegisterHandler) {
    EXPECT_THROW(common::signal::registerCustomHandler(SIGTERM, remember), std::system_error);
}

}  // namespace
