#include "Core/JobHandlers/JobHandlerFactory.h"

#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

struct FactoryRow {
    const char* name;
    const char* itemName;
    const char* handler;  // "" for none
};

class JobHandlerFactoryTest : public tests::HandlerFixture, public testing::WithParamInterface<FactoryRow> {};

TEST_P(JobHandlerFactoryTest, CreatesTheHandlerOfTheFirstMatchingRule) {
    const zav::JobDescription job{GetParam().name, GetParam().itemName, {}};
    const auto handler = zav::JobHandlerFactory::create(job, phone_.curl, phone_.security, phone_.properties, reader_,
                                                        progress_, status_);
    const auto unknown = fakes::warning("Core/JobHandlers/JobHandlerFactory", "Unknown job type !");
    if (*GetParam().handler == '\0') {
        EXPECT_EQ(handler, nullptr);
        EXPECT_EQ(phone_.log.lines(), fakes::LogCapture::Lines{unknown});
    } else {
        ASSERT_NE(handler, nullptr);
        EXPECT_EQ(handler->getName(), GetParam().handler);
        EXPECT_TRUE(phone_.log.lines().empty());
    }
}

/// An HTTP client that counts registrations of the progress callback.
class WatchedCurl : public zav::Curl {
 public:
    void setProgressCallback(ProgressCallback) override { ++changes; }
    int changes = 0;
};

using ScenarioTest = tests::HandlerFixture;

// The scenario has a worker for redirects, which must not replace the callback of the outer pass.
TEST_F(ScenarioTest, KeepsTheProgressCallbackOfThePass) {
    const auto curl = std::make_shared<WatchedCurl>();
    const zav::JobDescription job{"custom", "step", {}};
    EXPECT_NE(
        zav::JobHandlerFactory::create(job, curl, phone_.security, phone_.properties, reader_, progress_, status_),
        nullptr);
    EXPECT_EQ(curl->changes, 0);
}

// A worker created on the thread of a pass belongs to that pass.
TEST_F(ScenarioTest, NestedPassStopsWithTheOuterPass) {
    stop_->stop();
    zav::ProvisioningWorker nested(phone_.properties, std::make_shared<zav::Curl>(), phone_.security);
    nested.startProvisioning(server_.url("/provisioning.xml"));
    EXPECT_TRUE(
        phone_.log.waitFor(fakes::info("Core/ProvisioningWatchdog/ProvisioningWorker", "Provisioning Finished")));
    EXPECT_TRUE(server_.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, JobHandlerFactoryTest,
    testing::Values(FactoryRow{"provisioning", "category", "MasterJobHandler"},
                    FactoryRow{"provisioning", "anything", "MasterJobHandler"},
                    FactoryRow{"nvm", "file", "FileDownloadHandler"},
                    FactoryRow{"custom", "file", "FileDownloadHandler"}, FactoryRow{"nvm", "param", "NVMJobHandler"},
                    FactoryRow{"settings", "param", "NVMJobHandler"}, FactoryRow{"settings", "file", "NVMJobHandler"},
                    FactoryRow{"firmware", "anything", "FirmwareJobHandler"},
                    FactoryRow{"custom", "step", "CustomScenarioJobHandler"},
                    FactoryRow{"scenario", "anything", "CustomScenarioJobHandler"}, FactoryRow{"custom", "param", ""},
                    FactoryRow{"category", "x", ""}, FactoryRow{"nvm", "step", ""}, FactoryRow{"NVM", "param", ""},
                    FactoryRow{"Provisioning", "category", ""}, FactoryRow{"", "", ""}));

}  // namespace
