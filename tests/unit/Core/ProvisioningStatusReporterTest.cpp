#include "Core/ProvisioningStatusReporter.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>

#include "fakes/FullStandardError.h"
#include "fakes/LogCapture.h"

namespace {

using zav::ProvisioningStatusReporter;

const std::string source = "Core/ProvisioningStatusReporter";
const std::string beginning = "Finished provisioning, status is";

class ProvisioningStatusReporterTest : public testing::Test {
 protected:
    /// The document that `reportFinished` logs.
    Json::Value finish() {
        log_.forget();
        reporter_.reportFinished();
        const auto lines = log_.lines();
        if (lines.size() != 1) throw std::runtime_error("expected one log line");
        EXPECT_EQ(lines[0].level, "info");
        EXPECT_EQ(lines[0].source, source);
        EXPECT_EQ(lines[0].text.substr(0, beginning.size()), beginning);
        written_ = lines[0].text.substr(beginning.size());
        std::istringstream stream(written_);
        Json::Value document;
        stream >> document;
        return document;
    }

    std::string overall(const std::vector<std::pair<std::string, int>>& results) {
        reporter_.resetStatus();
        for (const auto& [name, result] : results) reporter_.setJobStatus(name, result);
        const std::string status = finish()["provisioningStatus"].asString();
        EXPECT_EQ(reporter_.getProvisioningStatus(), status);
        return status;
    }

    fakes::LogCapture log_;
    ProvisioningStatusReporter reporter_;
    std::string written_;
};

TEST_F(ProvisioningStatusReporterTest, OverallStatusFollowsFromTheResults) {
    EXPECT_EQ(overall({{"nvm", 2}, {"custom", 2}}), "success");
    EXPECT_EQ(overall({{"nvm", 2}, {"custom", 2}, {"firmware", 2}}), "success");
    EXPECT_EQ(overall({{"nvm", 2}, {"firmware", 0}}), "partSuccess");
    EXPECT_EQ(overall({{"nvm", 0}}), "fail");
    EXPECT_EQ(overall({{"nvm", 0}, {"custom", 0}, {"firmware", 0}}), "fail");
    EXPECT_EQ(overall({{"nvm", 1}}), "partSuccess");
    EXPECT_EQ(overall({{"nvm", 1}, {"custom", 2}}), "partSuccess");
    EXPECT_EQ(overall({{"nvm", 0}, {"nvm", 2}}), "success") << "the last result counts";
}

TEST_F(ProvisioningStatusReporterTest, NoResultsGivePartSuccess) {
    const Json::Value document = finish();
    EXPECT_EQ(document["provisioningStatus"].asString(), "partSuccess");
    EXPECT_EQ(document.getMemberNames(), std::vector<std::string>{"provisioningStatus"});
}

TEST_F(ProvisioningStatusReporterTest, HandlersReportUnderClassNameOrJobType) {
    for (const auto& [name, category] :
         std::vector<std::pair<std::string, std::string>>{{"NVMJobHandler", "nvm"},
                                                          {"nvm", "nvm"},
                                                          {"CustomScenarioJobHandler", "custom"},
                                                          {"custom", "custom"},
                                                          {"FirmwareJobHandler", "firmware"},
                                                          {"firmware", "firmware"}}) {
        reporter_.resetStatus();
        reporter_.setJobStatus(name, 2);
        EXPECT_EQ(finish()[category]["jobStatus"].asString(), "success") << name;
    }
}

TEST_F(ProvisioningStatusReporterTest, IgnoresOtherNames) {
    for (const char* name : {"FileDownloadHandler", "file", "MasterJobHandler", "", "NVM"}) {
        reporter_.setJobStatus(name, 0);
        reporter_.setJobField(name, "extraInfo", "text");
    }
    EXPECT_EQ(finish().getMemberNames(), std::vector<std::string>{"provisioningStatus"});
}

TEST_F(ProvisioningStatusReporterTest, UnknownResultIsEmpty) {
    reporter_.setJobStatus("nvm", 3);
    const Json::Value document = finish();
    EXPECT_EQ(document["nvm"]["jobStatus"].asString(), "");
    EXPECT_TRUE(document["nvm"].isMember("jobStatus"));
    EXPECT_EQ(document["provisioningStatus"].asString(), "partSuccess");
}

TEST_F(ProvisioningStatusReporterTest, ExplicitStatusWins) {
    reporter_.setJobStatus("nvm", 2);
    reporter_.setJobField("custom", "extraInfo", "a detail without a result");
    reporter_.setProvisioningStatus("fail");
    EXPECT_EQ(reporter_.getProvisioningStatus(), "fail");
    const Json::Value document = finish();
    EXPECT_EQ(document["provisioningStatus"].asString(), "fail");
    EXPECT_EQ(document["nvm"]["jobStatus"].asString(), "success");
    EXPECT_EQ(document["custom"]["extraInfo"].asString(), "a detail without a result");
}

TEST_F(ProvisioningStatusReporterTest, RemovesACategoryWithoutAResult) {
    reporter_.setJobField("custom", "extraInfo", "a detail");
    EXPECT_EQ(finish().getMemberNames(), std::vector<std::string>{"provisioningStatus"});
}

TEST_F(ProvisioningStatusReporterTest, LogsTheDocumentWithItsLayout) {
    reporter_.setJobStatus("nvm", 2);
    reporter_.setJobField("nvm", "extraInfo", "3/5\n");
    finish();
    EXPECT_EQ(written_,
              "{\n\t\"nvm\" : \n\t{\n\t\t\"extraInfo\" : \"3/5\\n\",\n\t\t\"jobStatus\" : \"success\"\n\t},\n"
              "\t\"provisioningStatus\" : \"success\"\n}");
}

TEST_F(ProvisioningStatusReporterTest, ResetClearsEverything) {
    EXPECT_EQ(reporter_.getProvisioningStatus(), "");
    reporter_.setJobStatus("nvm", 0);
    finish();
    EXPECT_EQ(reporter_.getProvisioningStatus(), "fail");
    reporter_.resetStatus();
    EXPECT_EQ(reporter_.getProvisioningStatus(), "");
    EXPECT_EQ(finish().getMemberNames(), std::vector<std::string>{"provisioningStatus"});
}

// Repeated, because a round in which the status is set before the wait begins proves nothing.
TEST_F(ProvisioningStatusReporterTest, WaiterReadsTheStatusOnceItIsSet) {
    for (int round = 0; round < 40; ++round) {
        const bool set = round % 2 == 0;
        reporter_.resetStatus();
        std::thread pass([&] {
            reporter_.setJobStatus("nvm", 0);
            set ? reporter_.setProvisioningStatus("fail") : reporter_.reportFinished();
        });
        EXPECT_EQ(reporter_.waitForProvisioningStatus(std::chrono::hours(1)), "fail");
        pass.join();
        EXPECT_EQ(reporter_.waitForProvisioningStatus(std::chrono::hours(1)), "fail") << "the status is set already";
    }
}

TEST_F(ProvisioningStatusReporterTest, WaitForAStatusTimesOut) {
    reporter_.setJobStatus("nvm", 2);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(reporter_.waitForProvisioningStatus(std::chrono::milliseconds(20)), "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST_F(ProvisioningStatusReporterTest, ReadingWhileAPassWritesIsSafe) {
    std::thread pass([this] {
        for (int i = 0; i < 500; ++i) {
            reporter_.resetStatus();
            reporter_.setJobStatus("nvm", i % 3);
            reporter_.reportFinished();
        }
    });
    for (int i = 0; i < 500; ++i) {
        const std::string status = reporter_.getProvisioningStatus();
        EXPECT_TRUE(status.empty() || status == "fail" || status == "partSuccess" || status == "success") << status;
    }
    pass.join();
}

TEST_F(ProvisioningStatusReporterTest, BlockedLogDoesNotDelayReaders) {
    fakes::FullStandardError full;
    std::atomic<bool> reported{false};
    full.hold();
    const auto start = std::chrono::steady_clock::now();
    std::thread pass([&] {
        reporter_.reportFinished();
        reported = true;
    });
    std::chrono::steady_clock::duration longest{};
    while (!reported) {
        const auto before = std::chrono::steady_clock::now();
        static_cast<void>(reporter_.getProvisioningStatus());
        longest = std::max(longest, std::chrono::steady_clock::now() - before);
    }
    const auto logged = std::chrono::steady_clock::now() - start;
    pass.join();
    full.release();
    EXPECT_GT(logged, std::chrono::seconds(1)) << "the log line did not block";
    EXPECT_LT(longest, std::chrono::seconds(1));
    EXPECT_EQ(reporter_.getProvisioningStatus(), "partSuccess");
}

}  // namespace
