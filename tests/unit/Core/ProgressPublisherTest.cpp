#include "Core/ProgressPublisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "fakes/FakeBus.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"

namespace {

using testing::ElementsAre;
using zav::ProgressPublisher;

const std::string nvm = "nvm";
const std::string custom = "custom";

std::string message(const std::string& job, const std::string& value) {
    return R"(publish prov-client-progress {"param":")" + job + R"(","value":")" + value + "\"} 0";
}

class ProgressPublisherTest : public testing::Test {
 protected:
    const std::shared_ptr<fakes::FakeBus> bus_ = std::make_shared<fakes::FakeBus>();
    ProgressPublisher::Clock::time_point now_;
    ProgressPublisher publisher_{bus_, [this] { return now_; }};
};

TEST_F(ProgressPublisherTest, PublishesStartAndEndOfAJob) {
    {
        const ProgressPublisher::Job job(&publisher_, nvm, "items", 3);
        publisher_.report(2, 3);
    }
    EXPECT_THAT(bus_->calls(), ElementsAre(message("nvm", "0/3 items"), message("nvm", "2/3 items")));
}

TEST_F(ProgressPublisherTest, PublishesTwiceASecondInBetween) {
    const ProgressPublisher::Job job(&publisher_, nvm, "items", 10000);
    for (std::uint64_t item = 1; item <= 10000; ++item) {
        now_ += std::chrono::milliseconds(1);
        publisher_.report(item, 10000);
    }
    EXPECT_EQ(bus_->calls().size(), 1U + 20U);
    EXPECT_EQ(bus_->calls()[1], message("nvm", "500/10000 items"));
    EXPECT_EQ(bus_->calls().back(), message("nvm", "10000/10000 items"));
}

TEST_F(ProgressPublisherTest, ANestedJobReportsUnderItsOwnName) {
    {
        const ProgressPublisher::Job outer(&publisher_, custom, "bytes", 0);
        {
            const ProgressPublisher::Job inner(&publisher_, nvm, "items", 1);
            publisher_.report(1, 1);
        }
        now_ += ProgressPublisher::interval;
        publisher_.report(10, 20);
    }
    publisher_.report(99, 99);
    EXPECT_THAT(bus_->calls(),
                ElementsAre(message("custom", "0/0 bytes"), message("nvm", "0/1 items"), message("nvm", "1/1 items"),
                            message("custom", "10/20 bytes"), message("custom", "10/20 bytes")));
}

TEST_F(ProgressPublisherTest, WithoutAPublisherAJobDoesNothing) {
    { const ProgressPublisher::Job job(nullptr, nvm, "items", 1); }
    EXPECT_THAT(bus_->calls(), ElementsAre());
}

class PassProgressTest : public testing::Test {
 protected:
    PassProgressTest() {
        phone_.properties->put("System.Provision.ProvisioningServer", server_.url("/"));
        phone_.properties->put("Audio.Ringer.Volume", "");
    }

    void run() {
        zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security, &publisher_);
        worker.startProvisioning("");
        ASSERT_TRUE(phone_.log.waitFor(
            fakes::info("Core/ProvisioningWatchdog/ProvisioningWorker", "Provisioning succeeded. ")));
    }

    void serve(const std::string& path, const std::string& inside) {
        server_.on(path, fakes::HttpAnswer::ok(tests::provisioningFile("provisioning", "1.1", inside)));
    }

    static std::string bytes(std::size_t done, std::size_t total) {
        return std::to_string(done) + "/" + std::to_string(total) + " bytes";
    }

    tests::Phone phone_;
    fakes::HttpServer server_;
    const std::shared_ptr<fakes::FakeBus> bus_ = std::make_shared<fakes::FakeBus>();
    // The clock stands still, so only starts and ends are published.
    ProgressPublisher publisher_{bus_, [] { return ProgressPublisher::Clock::time_point(); }};
};

const std::string settings = R"(<nvm><param name="Audio.Ringer.Volume" value="4"/>)"
                             R"(<param name="Audio.Ringer.Volume" value="5"/></nvm>)";

TEST_F(PassProgressTest, NamesTheFileThenEachJob) {
    const std::string file = tests::provisioningFile("provisioning", "1.1", settings);
    serve("/provisioning.xml", settings);
    run();
    EXPECT_THAT(bus_->calls(), ElementsAre(message("provisioning", "0/0 bytes"),
                                           message("provisioning", bytes(file.size(), file.size())),
                                           message("nvm", "0/2 items"), message("nvm", "2/2 items")));
}

TEST_F(PassProgressTest, ANestedPassReportsToo) {
    const std::string redirect =
        R"(<custom><step type="Redirect" url=")" + server_.url("/other.xml") + R"("/></custom>)";
    const std::size_t outer = tests::provisioningFile("provisioning", "1.1", redirect).size();
    const std::size_t inner = tests::provisioningFile("provisioning", "1.1", settings).size();
    serve("/provisioning.xml", redirect);
    serve("/other.xml", settings);
    run();
    EXPECT_THAT(bus_->calls(),
                ElementsAre(message("provisioning", "0/0 bytes"), message("provisioning", bytes(outer, outer)),
                            message("custom", "0/0 bytes"), message("provisioning", "0/0 bytes"),
                            message("provisioning", bytes(inner, inner)), message("nvm", "0/2 items"),
                            message("nvm", "2/2 items"), message("custom", "0/0 bytes")));
}

TEST_F(PassProgressTest, ABusThatRefusesChangesNothing) {
    serve("/provisioning.xml", settings);
    run();
    const std::vector<fakes::LogLine> before = phone_.log.lines();
    const auto writes = phone_.properties->writes().size();
    phone_.log.forget();
    bus_->failOn("publish", "the broker is away");
    run();
    ASSERT_EQ(phone_.log.lines().size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) EXPECT_EQ(phone_.log.lines()[i].text, before[i].text);
    EXPECT_EQ(phone_.properties->writes().size(), 2 * writes);
}

}  // namespace
