#include "Core/Pass.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

int httpCodeAtStart = -1;

/// Reads the code once all objects of the program are made, before a test sets it.
class Start : public testing::Environment {
    void SetUp() override { httpCodeAtStart = zav::lastHttpCode; }
};

const testing::Environment* const start = testing::AddGlobalTestEnvironment(new Start);

TEST(PassStateTest, BeforeTheFirstDownloadTheHttpCodeIs0) { EXPECT_EQ(httpCodeAtStart, 0); }

TEST(PassStateTest, ThreadWithoutAPassHasNoCurrentOne) {
    EXPECT_EQ(zav::Pass::ofThisThread(), nullptr);
    try {
        zav::Pass::current();
        ADD_FAILURE();
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "No provisioning pass runs on this thread");
    }
}

TEST(PassStateTest, ReturnsACopyOfTheVersion) {
    zav::setCurrentProvisioningVersion("1.1");
    const std::string version = zav::currentProvisioningVersion();
    zav::setCurrentProvisioningVersion("");
    EXPECT_EQ(version, "1.1");
    EXPECT_EQ(zav::currentProvisioningVersion(), "");
}

}  // namespace
