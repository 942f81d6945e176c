#include "common/StopSignal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

TEST(StopSignalTest, StopEndsWaitsForGood) {
    common::StopSignal signal;
    EXPECT_FALSE(signal.isStopped());
    EXPECT_FALSE(signal.waitFor(0ms));
    std::thread waiter([&] { EXPECT_TRUE(signal.waitFor(1h)); });
    signal.stop();
    waiter.join();
    EXPECT_TRUE(signal.isStopped());
    EXPECT_TRUE(signal.waitFor(1h));
}

TEST(StopSignalTest, IsOverdueAfterTheGracePeriod) {
    common::StopSignal signal;
    EXPECT_FALSE(signal.isOverdue(std::chrono::steady_clock::now() + 1h)) << "not stopped";
    const auto before = std::chrono::steady_clock::now();
    signal.stop();
    const auto after = std::chrono::steady_clock::now();
    EXPECT_FALSE(signal.isOverdue(before + common::StopSignal::grace - 1ms));
    EXPECT_TRUE(signal.isOverdue(after + common::StopSignal::grace));
}

}  // namespace
