#include "Core/PassState.h"

#include <gtest/gtest.h>

#include <thread>

#include "Core/StopSignal.h"

namespace {

TEST(PassStateTest, TheVersionIsCopiedOut) {
    zav::setCurrentProvisioningVersion("1.1");
    const std::string version = zav::currentProvisioningVersion();
    zav::setCurrentProvisioningVersion("");
    EXPECT_EQ(version, "1.1");
    EXPECT_EQ(zav::currentProvisioningVersion(), "");
}

TEST(StopSignalTest, EndsAWaitAndStays) {
    zav::StopSignal signal;
    EXPECT_FALSE(signal.isStopped());
    EXPECT_FALSE(signal.waitFor(std::chrono::milliseconds(0)));
    std::thread waiter([&] { EXPECT_TRUE(signal.waitFor(std::chrono::hours(1))); });
    signal.stop();
    waiter.join();
    EXPECT_TRUE(signal.isStopped());
    EXPECT_TRUE(signal.waitFor(std::chrono::hours(1)));
}

}  // namespace
