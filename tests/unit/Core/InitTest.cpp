#include "Core/Init.h"

#include <gtest/gtest.h>

#include "Core/GlobalConfig.h"
#include "unit/Core/support/Phone.h"

namespace {

using fakes::error;
using fakes::info;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/Init";

class RecordingTimer : public zav::ProvisioningTimer {
 public:
    using ProvisioningTimer::ProvisioningTimer;
    void start(unsigned period) override {
        periods.push_back(period);
        if (periods.size() <= failures) throw std::runtime_error("cannot start a thread");
    }
    std::vector<unsigned> periods;
    std::size_t failures = 0;
};

class InitTest : public testing::Test {
 protected:
    static zav::InitTiming atOnce() { return {std::chrono::seconds(0), std::chrono::seconds(0)}; }

    tests::Phone phone_;
    RecordingTimer timer_{phone_.properties};
    zav::Init init_{timer_, phone_.properties, atOnce()};
};

TEST_F(InitTest, DefaultPauses) {
    const zav::InitTiming timing;
    EXPECT_EQ(timing.credentialsPause, std::chrono::seconds(1));
    EXPECT_EQ(timing.periodPause, std::chrono::seconds(10));
}

TEST_F(InitTest, ReadsCredentialsConfigurationAndPeriodInOrder) {
    phone_.properties->put("System.Provision.Period", "7200");
    phone_.properties->put("System.Provision.ProvisioningServer", "http://server/");
    init_.run();
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{7200});
    EXPECT_EQ(zav::GlobalConfig::provisioningServer(), "http://server/");
    EXPECT_EQ(phone_.log.lines(), (Lines{info("Core/GlobalConfig", "Waiting for factory auth user name and password"),
                                         info("Core/GlobalConfig", "Preconditions are met"),
                                         info("Core/GlobalConfig", "Reading properties to GlobalConfig"),
                                         info(source, "Setting timer"), info(source, "Timer set to 7200 seconds")}));
}

TEST_F(InitTest, LogsThePeriodAsRead) {
    phone_.properties->put("System.Provision.Period", "599");
    init_.setTimer();
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{600});
    EXPECT_TRUE(phone_.log.has(info(source, "Timer set to 599 seconds")));
}

TEST_F(InitTest, ContinuesWithoutCredentials) {
    phone_.properties->put("System.Provision.FactoryAuthUsername", "");
    init_.run();
    EXPECT_EQ(phone_.log.count(info("Core/GlobalConfig", "Waiting for auth user name and password")), 10U);
    EXPECT_TRUE(phone_.log.has(info("Core/GlobalConfig", "Preconditions are not met")));
    EXPECT_EQ(timer_.periods, std::vector<unsigned>{86400});
}

TEST_F(InitTest, RetriesAnUnreadablePeriodTenTimesThenGivesUp) {
    phone_.properties->failKey("System.Provision.Period");
    init_.setTimer();
    Lines expected{info(source, "Setting timer")};
    for (int i = 0; i < 10; ++i) {
        expected.push_back(error(source, "Property 'System.Provision.Period': the property service is offline"));
    }
    expected.push_back(error(source, "Timer not set. Automatic provisioning disabled!"));
    EXPECT_EQ(phone_.log.lines(), expected);
    EXPECT_TRUE(timer_.periods.empty());
}

TEST_F(InitTest, PausesBetweenAttempts) {
    phone_.properties->failKey("System.Provision.Period");
    zav::Init init(timer_, phone_.properties, {std::chrono::seconds(0), std::chrono::milliseconds(5)});
    const auto begin = std::chrono::steady_clock::now();
    init.setTimer();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

TEST_F(InitTest, NonNumericPeriodCountsAsAFailedAttempt) {
    phone_.properties->put("System.Provision.Period", "daily");
    init_.setTimer();
    EXPECT_EQ(phone_.log.count(error(source, "stoi")), 10U);
    EXPECT_TRUE(phone_.log.has(error(source, "Timer not set. Automatic provisioning disabled!")));
}

TEST_F(InitTest, StopsRetryingAfterTheFirstSuccess) {
    timer_.failures = 2;
    init_.setTimer();
    EXPECT_EQ(phone_.log.lines(),
              (Lines{info(source, "Setting timer"), error(source, "cannot start a thread"),
                     error(source, "cannot start a thread"), info(source, "Timer set to 86400 seconds")}));
    EXPECT_EQ(timer_.periods.size(), 3U);
}

}  // namespace
