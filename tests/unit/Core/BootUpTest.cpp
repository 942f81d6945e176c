// The conditions for the pass after boot-up.
#include "unit/Core/support/DispatcherFixture.h"

namespace {

using fakes::info;

class BootUpTest : public tests::DispatcherFixture, public testing::WithParamInterface<const char*> {};

TEST_P(BootUpTest, AnyValueButDoneRunsThePass) {
    holdPass()->open();
    phone_.properties->put("State.Provisioning.OnBootUp", GetParam());
    dispatcher_->enableProvisioning();
    EXPECT_EQ(phone_.log.count(info("Core/ProvisioningWatchdog/ProvisioningWorker", "Start provisioning thread")), 1U);
    EXPECT_EQ(phone_.properties->writesTo("State.Provisioning.OnBootUp"), std::vector<std::string>{"done"});
}

INSTANTIATE_TEST_SUITE_P(Words, BootUpTest, testing::Values("Done", "DONE", "done ", "not done", "don", "0"));

using BootUpStopTest = tests::DispatcherFixture;

// The stop drops the request, so "done" would be wrong.
TEST_F(BootUpStopTest, StopBeforeThePassDoesNotWriteDone) {
    holdPass()->open();
    dispatcher_->stopListening();
    dispatcher_->enableProvisioning();
    EXPECT_TRUE(server_.requests().empty());
    EXPECT_TRUE(phone_.properties->writes().empty());
}

}  // namespace
