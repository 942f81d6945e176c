#include "Core/GlobalConfig.h"

#include <gtest/gtest.h>

#include <chrono>

#include "unit/Core/support/Phone.h"

namespace {

using fakes::error;
using fakes::info;
using zav::GlobalConfig;

const std::string source = "Core/GlobalConfig";
const std::string userName = "System.Provision.FactoryAuthUsername";
const std::string password = "System.Provision.FactoryAuthPassword";

class GlobalConfigTest : public testing::Test {
 protected:
    tests::Phone phone_;
};

TEST_F(GlobalConfigTest, DoesNotWaitIfCredentialsAreSet) {
    GlobalConfig::waitForPreconditions(phone_.properties, 10, std::chrono::hours(1));
    const fakes::LogCapture::Lines expected{info(source, "Waiting for factory auth user name and password"),
                                            info(source, "Preconditions are met")};
    EXPECT_EQ(phone_.log.lines(), expected);
}

TEST_F(GlobalConfigTest, RetriesAnEmptyPasswordTenTimesThenContinues) {
    phone_.properties->put(password, "");
    GlobalConfig::waitForPreconditions(phone_.properties, 10, std::chrono::seconds(0));
    fakes::LogCapture::Lines expected{info(source, "Waiting for factory auth user name and password")};
    for (int i = 0; i < 10; ++i) expected.push_back(info(source, "Waiting for auth user name and password"));
    expected.push_back(info(source, "Cannot read auth user name or password"));
    expected.push_back(info(source, "Preconditions are not met"));
    EXPECT_EQ(phone_.log.lines(), expected);
    EXPECT_EQ(phone_.properties->reads().size(), 22U) << "eleven checks of two properties";
}

TEST_F(GlobalConfigTest, PausesBetweenRetries) {
    phone_.properties->put(password, "");
    const auto begin = std::chrono::steady_clock::now();
    GlobalConfig::waitForPreconditions(phone_.properties, 1, std::chrono::seconds(1));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST_F(GlobalConfigTest, ReadsThePasswordOnlyIfThereIsAUserName) {
    phone_.properties->put(userName, "");
    EXPECT_FALSE(GlobalConfig::hasAuthCredentials(phone_.properties));
    EXPECT_EQ(phone_.properties->reads(), std::vector<std::string>{userName});
    phone_.properties->put(userName, "phone");
    EXPECT_TRUE(GlobalConfig::hasAuthCredentials(phone_.properties));
    EXPECT_EQ(phone_.properties->reads(), (std::vector<std::string>{userName, userName, password}));
}

TEST_F(GlobalConfigTest, WaitEndsWhenCredentialsAreSet) {
    phone_.properties->failCall(fakes::FakeProperties::Call::get, 1);
    GlobalConfig::waitForPreconditions(phone_.properties, 10, std::chrono::seconds(0));
    const fakes::LogCapture::Lines expected{
        info(source, "Waiting for factory auth user name and password"),
        error(source,
              "Error getting value for key 'System.Provision.FactoryAuthUsername' exception: Property "
              "'System.Provision.FactoryAuthUsername': the property service is offline"),
        info(source, "Waiting for auth user name and password"), info(source, "Preconditions are met")};
    EXPECT_EQ(phone_.log.lines(), expected);
}

TEST_F(GlobalConfigTest, ReadsTheValuesInOrder) {
    phone_.properties->put("System.Provision.ProvisioningServer", "http://server/");
    GlobalConfig::readProperties(phone_.properties);
    EXPECT_EQ(GlobalConfig::softwareVersion(), "V1.2.3");
    EXPECT_EQ(GlobalConfig::settingsVersion(), "2016-01-01_00:00:00");
    EXPECT_EQ(GlobalConfig::customVersion(), "2016-02-01_00:00:00");
    EXPECT_EQ(GlobalConfig::provisioningServer(), "http://server/");
    EXPECT_EQ(phone_.properties->reads(),
              (std::vector<std::string>{"System.General.SoftwareVersion", "System.Provision.SettingsVersion",
                                        "System.Provision.CustomVersion", "System.Provision.ProvisioningServer",
                                        "System.Debug.LevelMask.ZAV"}));
    EXPECT_EQ(phone_.log.lines(), fakes::LogCapture::Lines{info(source, "Reading properties to GlobalConfig")});
}

TEST_F(GlobalConfigTest, ReadsTheLevelMaskWithoutApplyingIt) {
    phone_.properties->put("System.Debug.LevelMask.ZAV", "0");
    GlobalConfig::readProperties(phone_.properties);
    phone_.log.forget();
    GlobalConfig::readProperties(phone_.properties);
    EXPECT_EQ(phone_.log.lines().size(), 1U);
}

TEST_F(GlobalConfigTest, UnreadableServerIsEmpty) {
    GlobalConfig::setProvisioningServer("http://previous/");
    phone_.properties->failKey("System.Provision.ProvisioningServer");
    GlobalConfig::readProperties(phone_.properties);
    EXPECT_EQ(GlobalConfig::provisioningServer(), "");
    EXPECT_TRUE(
        phone_.log.has(error(source,
                             "Error getting value for key 'System.Provision.ProvisioningServer' exception: Property "
                             "'System.Provision.ProvisioningServer': the property service is offline")));
}

TEST_F(GlobalConfigTest, UnreadableValuesAreLoggedInTheirOrder) {
    for (const char* key : {"System.Debug.LevelMask.ZAV", "System.Provision.CustomVersion"}) {
        phone_.properties->failKey(key);
    }
    GlobalConfig::readProperties(phone_.properties);
    const auto line = [](const std::string& key) {
        return error(source, "Error getting value for key '" + key + "' exception: Property '" + key +
                                 "': the property service is offline");
    };
    EXPECT_EQ(phone_.log.lines(),
              (fakes::LogCapture::Lines{info(source, "Reading properties to GlobalConfig"),
                                        line("System.Provision.CustomVersion"), line("System.Debug.LevelMask.ZAV")}));
    EXPECT_EQ(GlobalConfig::customVersion(), "");
    EXPECT_EQ(GlobalConfig::settingsVersion(), "2016-01-01_00:00:00");
}

TEST_F(GlobalConfigTest, FixedValues) {
    EXPECT_EQ(GlobalConfig::fileFormatVersion, "1.1");
    EXPECT_EQ(GlobalConfig::productIdentifier, "kd4v");
    EXPECT_FALSE(GlobalConfig::defaultProvisioningServer.empty());
}

}  // namespace
