#include "Core/Pass.h"

#include <gtest/gtest.h>

namespace {

TEST(PassStateTest, ReturnsACopyOfTheVersion) {
    zav::setCurrentProvisioningVersion("1.1");
    const std::string version = zav::currentProvisioningVersion();
    zav::setCurrentProvisioningVersion("");
    EXPECT_EQ(version, "1.1");
    EXPECT_EQ(zav::currentProvisioningVersion(), "");
}

}  // namespace
