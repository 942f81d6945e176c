#include "PassReasons.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zavctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char worker[] = "Core/ProvisioningWatchdog/ProvisioningWorker:1";
const char handler[] = "Core/JobHandlers/JobHandler:2";

std::string line(const std::string& level, const std::string& source, const std::string& text) {
    return "2026-11-22T12:00:00.123 ZAV " + level + " " + source + " " + text;
}

class Log : public testing::Test {
 protected:
    void info(const std::string& text) { reasons.add(line("info", worker, text)); }
    void warning(const std::string& text) { reasons.add(line("warning", handler, text)); }
    void error(const std::string& text) { reasons.add(line("error", handler, text)); }

    void begin() {
        info("Start provisioning thread");
        info("Provisioning Started");
        info("Provisioning XML from: https://s/p.xml to: /v/p.xml");
    }
    void end() { info("Provisioning Finished"); }
    void ended(const std::string& result = "failed") {
        end();
        info("Provisioning " + result + ". ");
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> all;
        for (const Reason& reason : reasons.reasons()) {
            for (const std::string& text : reason.texts) all.push_back(text);
        }
        return all;
    }

    PassReasons reasons;
};

TEST_F(Log, WarningsAndErrorsAreReasons) {
    begin();
    warning("Incorrect product ID 'x'='kd4v'");
    end();
    ASSERT_EQ(reasons.reasons().size(), 1U);
    EXPECT_EQ(reasons.reasons()[0].level, "warning");
    EXPECT_EQ(reasons.reasons()[0].advice, "write productID=\"kd4v\", in lower case");
}

TEST_F(Log, ALineWithoutAdviceIsShownAllTheSame) {
    begin();
    error("Something that no page knows");
    end();
    ASSERT_THAT(texts(), ElementsAre("Something that no page knows"));
    EXPECT_EQ(reasons.reasons()[0].advice, "");
}

TEST_F(Log, ConsequencesAreLeftOut) {
    begin();
    warning("Incorrect product ID 'x'='kd4v'");
    error("File /v/p.xml check error: ID=0 MAC=1 VER=1");
    warning("Initial provisioning file verification failed");
    end();
    EXPECT_THAT(texts(), ElementsAre("Incorrect product ID 'x'='kd4v'"));
}

TEST_F(Log, AConsequenceThatNothingExplainsIsAReason) {
    begin();
    warning("Initial provisioning file verification failed");
    end();
    EXPECT_THAT(texts(), ElementsAre("Initial provisioning file verification failed"));
}

TEST_F(Log, OneFileDoesNotExplainTheNext) {
    begin();
    info("Found nvm job type with URL: https://s/a.xml");
    warning("Incorrect product ID 'x'='kd4v'");
    warning("XML verification failed for: /v/a.xml");
    info("Found custom job type with URL: https://s/b.xml");
    warning("XML verification failed for: /v/b.xml");
    end();
    EXPECT_THAT(texts(), ElementsAre("Incorrect product ID 'x'='kd4v'", "XML verification failed for: /v/b.xml"));
}

TEST_F(Log, OneJobDoesNotExplainTheNext) {
    const std::string failed =
        "Error downloading firmware file 'https://s/i' to '/c/i' status: No error HTTP status: 404 Not Found";
    begin();
    info("+++++ Starting NVMJobHandler");
    warning("Property 'X': unknown key: x");
    info("-----Finishing NVMJobHandler");
    info("+++++ Starting FirmwareJobHandler");
    error(failed);
    end();
    EXPECT_THAT(texts(), ElementsAre("Property 'X': unknown key: x", failed));
}

TEST_F(Log, OnlyTheLastPassThatEnded) {
    error("of a pass that was running at the request");
    ended();
    begin();
    error("ours");
    ended();
    EXPECT_EQ(reasons.endedPasses(), 2U);
    EXPECT_THAT(texts(), ElementsAre("ours"));
    begin();
    error("of the next pass");
    EXPECT_THAT(texts(), ElementsAre("ours"));
}

TEST_F(Log, APassHasEndedBeforeItSaysHow) {
    begin();
    error("ours");
    EXPECT_EQ(reasons.endedPasses(), 0U);
    end();
    EXPECT_EQ(reasons.endedPasses(), 1U);
    EXPECT_THAT(texts(), ElementsAre("ours"));
}

TEST_F(Log, NestedPassesBelongToThePassAroundThem) {
    begin();
    info("Executing step: 'Redirect'");
    begin();
    error("Curl Error: No error HTTP Error: 404 Not Found");
    error("Worker failed to download initial job");
    end();
    EXPECT_EQ(reasons.endedPasses(), 0U);
    end();
    EXPECT_EQ(reasons.endedPasses(), 1U);
    EXPECT_THAT(texts(), ElementsAre("Curl Error: No error HTTP Error: 404 Not Found"));
}

TEST_F(Log, WithoutInformationLinesEverythingCounts) {
    error("a");
    EXPECT_FALSE(reasons.hasPass());
    EXPECT_THAT(texts(), ElementsAre("a"));
}

TEST_F(Log, SaysThatAFileHasNoJobs) {
    begin();
    info("File /v/p.xml verified positively.");
    info("Found 0 valid provisioning job/s. ");
    end();
    EXPECT_THAT(texts(), ElementsAre("0 jobs were found in the file"));
    EXPECT_EQ(reasons.reasons()[0].advice,
              "nothing stands inside an item: write <param name=\"KEY\" value=\"VALUE\"/>");
}

TEST_F(Log, GivesNoAdviceForMissingJobsThatAreExplained) {
    begin();
    info("File /v/p.xml verified positively.");
    warning("Job: settings param is not valid for provisioning version: 1.1 and it will not be started");
    info("Found 0 valid provisioning job/s. ");
    end();
    ASSERT_EQ(reasons.reasons().size(), 2U);
    EXPECT_EQ(reasons.reasons()[1].texts.front(), "0 jobs were found in the file");
    EXPECT_EQ(reasons.reasons()[1].advice, "");
}

TEST_F(Log, SaysThatAnIncludedFileHasNoJobs) {
    begin();
    info("Found 1 valid provisioning job/s. ");
    info("+++++ Starting FileDownloadHandler");
    info("Found job with URL: https://s/a.xml");
    info("File /v/a.xml verified positively.");
    info("-----Finishing FileDownloadHandler");
    end();
    EXPECT_THAT(texts(), ElementsAre("0 jobs were found in the file /v/a.xml"));
}

TEST_F(Log, AFileWhoseJobsRanHasJobs) {
    begin();
    info("File /v/p.xml verified positively.");
    info("Found 1 valid provisioning job/s. ");
    info("+++++ Starting MasterJobHandler");
    info("Job Type: nvm");
    info("Found nvm job type with URL: https://s/a.xml");
    info("File /v/a.xml verified positively.");
    info("+++++ Starting NVMJobHandler");
    info("-----Finishing NVMJobHandler");
    info("-----Finishing MasterJobHandler");
    end();
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(Log, SaysThatNoCategoryIsKnown) {
    begin();
    info("Found 1 valid provisioning job/s. ");
    info("+++++ Starting MasterJobHandler");
    info("-----Finishing MasterJobHandler");
    end();
    EXPECT_THAT(texts(), ElementsAre("No category has a type that the phone knows"));
    EXPECT_EQ(reasons.reasons()[0].advice, "types are nvm, custom, firmware");
}

TEST_F(Log, LinesOfOneKindAreOneReason) {
    begin();
    for (int i = 0; i < 1000; ++i) warning("Property 'K" + std::to_string(i) + "': unknown key: x");
    for (int i = 0; i < 3; ++i) warning("Property 'K0': unknown key: x");
    end();
    ASSERT_EQ(reasons.reasons().size(), 1U);
    EXPECT_EQ(reasons.reasons()[0].texts.size(), PassReasons::maximumTexts);
    EXPECT_EQ(reasons.reasons()[0].texts.size() + reasons.reasons()[0].more, 1000U);
}

TEST_F(Log, WhatIsKeptIsBounded) {
    begin();
    for (int i = 0; i < 1000; ++i) {
        reasons.add(line("error", "a/b:" + std::to_string(i), std::string(100000, 'x')));
    }
    end();
    EXPECT_EQ(reasons.reasons().size(), PassReasons::maximumKinds);
    EXPECT_LT(texts().front().size(), 500U);
}

TEST_F(Log, WhatIsShownIsUtf8) {
    begin();
    error(
        "a\xff\xfe"
        "b \xc3\xa4");
    end();
    EXPECT_THAT(texts(), ElementsAre("a??b \xc3\xa4"));
}

TEST_F(Log, ForeignLinesAreIgnored) {
    for (const std::string& text :
         {std::string(), std::string("Killed"), std::string("error"), std::string("a ZAV error"),
          std::string("a ZAV error nosource text"), std::string("a OTHER error b:1 text"), std::string("\0 ZAV", 5),
          std::string("\t\"provisioningStatus\" : \"fail\""), std::string(100000, ' ')}) {
        reasons.add(text);
    }
    EXPECT_THAT(texts(), IsEmpty());
    EXPECT_FALSE(reasons.hasPass());
}

TEST_F(Log, TheEndOfAPassCannotBeForgedByAFile) {
    begin();
    reasons.add(line("info", handler, "Provisioning failed. "));
    error("ours");
    end();
    EXPECT_THAT(texts(), ElementsAre("ours"));
    EXPECT_EQ(reasons.endedPasses(), 1U);
}

TEST_F(Log, RefusedSecretsAreHidden) {
    begin();
    error("Could not set param : 'System.Web.AdminPassword'='it's pw1' (exception Property: too long)");
    error("Could not set param : 'System.Provision.ProvisioningServer'='http://u:pw2@h/ x' (exception Property: no)");
    error("Could not set param : 'Time.Format'='13h' (exception Property: one of)");
    ended();
    EXPECT_THAT(
        texts(),
        ElementsAre("Could not set param : 'System.Web.AdminPassword'='***' (exception Property: too long)",
                    "Could not set param : 'System.Provision.ProvisioningServer'='http://u:***@h/ x' (exception "
                    "Property: no)",
                    "Could not set param : 'Time.Format'='13h' (exception Property: one of)"));
}

}  // namespace
}  // namespace zavctl
