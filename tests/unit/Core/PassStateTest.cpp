#include "Core/Pass.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

// Read before any test of this program sets it.
const int httpCodeAtStart = zav::lastHttpCode;

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
