#include "Core/JobHandlers/FirmwareJobHandler.h"

#include <filesystem>
#include <map>
#include <vector>

#include "common/Execute.h"
#include "http/UrlInfo.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"
#include "version/FirmwareVersionConsts.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using zav::Attributes;
using zav::JobDescription;
using Lines = fakes::LogCapture::Lines;
using Writes = std::vector<fakes::PropertyWrite>;

constexpr const char* source = "Core/JobHandlers/FirmwareJobHandler";
constexpr const char* image = "/config/swupdate/image.bin";

const fakes::LogLine nothingFound = warning(source, "No newer versions found, finishing job");
const fakes::LogLine tooMany = warning(source, "Multiple firmware version entries are not supported!");

class FirmwareJobHandlerTest : public tests::HandlerFixture {
 protected:
    FirmwareJobHandlerTest() {
        for (const char* key :
             {"State.FirmwareUpdate.Verify", "State.FirmwareUpdate.Filename", "State.FirmwareUpdate.UpdateSystem"}) {
            phone_.properties->put(key, "");
        }
        setRunning("2.13.7");
        setAutomatic(true);
        server_.on("/image.bin", fakes::HttpAnswer::ok("the image"));
        std::filesystem::remove_all("/config/swupdate");
        std::filesystem::create_directories("/config/swupdate");
        installCleanUp("echo \"$@\" >>/tmp/clean-up");
        std::filesystem::remove("/tmp/clean-up");
        phone_.properties->forgetCalls();
    }
    ~FirmwareJobHandlerTest() override { setRunning({}); }

    static void setRunning(const std::string& text) {
        version::FirmwareVersionConsts::getInstance().setRunningVersion(text);
    }
    void setAutomatic(bool on) { phone_.properties->put("FirmwareManagment.AutomaticCheckForUpdates", on ? "1" : "0"); }
    void setRequested(bool on) {
        phone_.properties->put("State.FirmwareUpdate.TriggerAuto", on ? "request" : "no_version");
    }
    static void installCleanUp(const std::string& command) {
        const std::string path = "/config/bin/clean-up-utils.sh";
        tests::writeFile(path, "#!/bin/sh\n" + command + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }
    static Attributes entry(const std::string& version, bool forced = false, const std::string& url = "/image.bin") {
        Attributes attributes{{"version", version}, {"url", url}};
        if (forced) attributes["flags"] = "FORCE_ACCEPT";
        return attributes;
    }
    int run(const std::vector<Attributes>& entries) {
        const JobDescription job{"firmware", "file", entries};
        return make<zav::FirmwareJobHandler>(job)->run();
    }
    static Writes installed(bool requested) {
        Writes writes{{"State.FirmwareUpdate.Filename", "", "image.bin"}};
        if (requested) {
            writes.push_back({"State.FirmwareUpdate.Verify", "", "request"});
            writes.push_back({"State.FirmwareUpdate.TriggerAuto", "", "success"});
        } else {
            writes.push_back({"State.FirmwareUpdate.UpdateSystem", "", "provisioning-request"});
        }
        return writes;
    }
    static Writes refused(bool requested) {
        return requested ? Writes{{"State.FirmwareUpdate.TriggerAuto", "", "no_version"}} : Writes{};
    }
    Lines found(const std::string& version) const {
        return {info(source, "Found upgradable version: " + version + " url: /image.bin")};
    }
};

// The complete decision table. Keys are the conditions: a - automatic, r - requested, f - forced. Values are the
// outcome: "does nothing" (and succeeds), "installs", or "refuses" (and fails).
struct Offer {
    const char* name;
    const char* running;
    const char* version;
    std::map<std::string, std::string> outcome;
    Lines refusal;
};

const std::map<std::string, std::string> always{{"---", "does nothing"}, {"a--", "installs"}, {"-r-", "installs"},
                                                {"ar-", "installs"},     {"--f", "installs"}, {"a-f", "installs"},
                                                {"-rf", "installs"},     {"arf", "installs"}};
const std::map<std::string, std::string> downgrade{{"---", "does nothing"}, {"a--", "refuses"},  {"-r-", "refuses"},
                                                   {"ar-", "refuses"},      {"--f", "installs"}, {"a-f", "installs"},
                                                   {"-rf", "refuses"},      {"arf", "refuses"}};
const std::map<std::string, std::string> never{{"---", "does nothing"}, {"a--", "refuses"}, {"-r-", "refuses"},
                                               {"ar-", "refuses"},      {"--f", "refuses"}, {"a-f", "refuses"},
                                               {"-rf", "refuses"},      {"arf", "refuses"}};

class DecisionTest : public FirmwareJobHandlerTest, public testing::WithParamInterface<Offer> {
 protected:
    /// Runs the job, checks all of its effects and returns the outcome as in the table.
    std::string outcomeOf(const std::vector<Attributes>& entries, const std::string& column, const Lines& refusal) {
        const bool requested = column[1] == 'r';
        setAutomatic(column[0] == 'a');
        setRequested(requested);
        std::filesystem::remove(image);
        std::filesystem::remove("/tmp/clean-up");
        phone_.properties->forgetCalls();
        phone_.log.forget();
        const int result = run(entries);
        const Lines lines = phone_.log.linesOf(source);
        const Writes writes = phone_.properties->writes();
        if (result == 2 && tests::exists(image)) {
            EXPECT_EQ(lines, found(entries.front().at("version")));
            EXPECT_EQ(writes, installed(requested));
            EXPECT_EQ(tests::contentOf("/tmp/clean-up"), "firmware-update\n");
            return "installs";
        }
        EXPECT_FALSE(tests::exists(image));
        EXPECT_FALSE(tests::exists("/tmp/clean-up"));
        if (result == 2) {
            EXPECT_EQ(lines, Lines());
            EXPECT_EQ(writes, Writes());
            return "does nothing";
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(lines, refusal);
        EXPECT_EQ(writes, refused(requested));
        return "refuses";
    }
};

TEST_P(DecisionTest, OneEntry) {
    const Offer& offer = GetParam();
    setRunning(offer.running);
    std::map<std::string, std::string> outcomes;
    for (const auto& [column, expected] : offer.outcome) {
        SCOPED_TRACE(column);
        Lines refusal = offer.refusal;
        refusal.push_back(nothingFound);
        outcomes[column] = outcomeOf({entry(offer.version, column[2] == 'f')}, column, refusal);
    }
    EXPECT_EQ(outcomes, offer.outcome);
}

TEST_P(DecisionTest, RefusesSeveralEntries) {
    setRunning(GetParam().running);
    std::map<std::string, std::string> outcomes;
    for (const auto& [column, expected] : never) {
        SCOPED_TRACE(column);
        outcomes[column] = outcomeOf({entry(GetParam().version), entry(GetParam().version, column[2] == 'f')}, column,
                                     {tooMany, nothingFound});
    }
    EXPECT_EQ(outcomes, never);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DecisionTest,
    testing::Values(
        Offer{"newer", "2.13.7", "V2.14", always, {}},
        Offer{"older", "2.13.7", "2.13.6", downgrade, {error(source, "'2.13.6'is older than'2.13.7'")}},
        Offer{"equal", "V2.13", "2.13.0", never, {error(source, "'2.13.0'is equal to'V2.13'")}},
        Offer{"malformed", "2.13.7", "latest", never, {error(source, "New firmware version'latest'is invalid!")}},
        Offer{"no_path",
              "kd4v-2.13",
              "kd5-2.14",
              never,
              {error(source, "Current version is not upgradeable to:'kd5-2.14'")}},
        Offer{"running_version_unknown",
              "",
              "2.14",
              never,
              {error(source, "Current version is not upgradeable to:'2.14'")}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(DecisionTest, RefusesAnEmptyList) {
    std::map<std::string, std::string> outcomes;
    for (const char* column : {"---", "a--", "-r-", "ar-"}) {
        SCOPED_TRACE(column);
        outcomes[column] = outcomeOf({}, column, {tooMany, nothingFound});
    }
    EXPECT_EQ(outcomes, (std::map<std::string, std::string>{
                            {"---", "does nothing"}, {"a--", "refuses"}, {"-r-", "refuses"}, {"ar-", "refuses"}}));
}

TEST_F(FirmwareJobHandlerTest, Name) {
    const JobDescription job;
    EXPECT_EQ(make<zav::FirmwareJobHandler>(job)->getName(), "FirmwareJobHandler");
}

TEST_F(FirmwareJobHandlerTest, OnlyTheExactFlagForces) {
    setAutomatic(false);
    for (const char* flag : {"force_accept", "FORCE_ACCEPT ", "FORCE", ""}) {
        Attributes one = entry("2.14");
        one["flags"] = flag;
        EXPECT_EQ(run({one}), 2) << flag;
    }
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(FirmwareJobHandlerTest, OnlyTheExactTriggerValueRequests) {
    setAutomatic(false);
    phone_.properties->put("State.FirmwareUpdate.TriggerAuto", "request-check-sync");
    EXPECT_EQ(run({entry("2.14")}), 2);
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(FirmwareJobHandlerTest, EntryWithoutVersionIsMalformed) {
    EXPECT_EQ(run({{{"url", "/image.bin"}}}), 0);
    EXPECT_EQ(phone_.log.linesOf(source), (Lines{error(source, "New firmware version''is invalid!"), nothingFound}));
}

TEST_F(FirmwareJobHandlerTest, EntryWithoutUrlThrows) { EXPECT_THROW(run({{{"version", "2.14"}}}), std::out_of_range); }

TEST_F(FirmwareJobHandlerTest, EmptyUrlCountsAsNoNewerVersion) {
    EXPECT_EQ(run({entry("2.14", false, "")}), 0);
    EXPECT_EQ(phone_.log.linesOf(source), (Lines{info(source, "Found upgradable version: 2.14 url: "), nothingFound}));
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(FirmwareJobHandlerTest, InvalidUrlThrows) {
    EXPECT_THROW(run({entry("2.14", false, "no url at all")}), zav::UrlException);
}

TEST_F(FirmwareJobHandlerTest, FailedDownloadIsReportedAndFailsTheJob) {
    setRequested(true);
    EXPECT_EQ(run({entry("2.14", false, "/missing.bin")}), 0);
    EXPECT_EQ(zav::lastHttpCode, 404);
    EXPECT_EQ(phone_.log.linesOf(source),
              (Lines{info(source, "Found upgradable version: 2.14 url: /missing.bin"),
                     error(source, "Error downloading firmware file '" + server_.url("/missing.bin") +
                                       "' to '/config/swupdate/missing.bin' status: No error HTTP status: 404 Not "
                                       "Found")}));
    EXPECT_EQ(phone_.properties->writes(), refused(true));
    status_.setJobStatus("FirmwareJobHandler", 0);
    const std::string text = document();
    EXPECT_NE(text.find("\"firmware\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"extraInfo\" : \"404 Not Found\""), std::string::npos) << text;
    EXPECT_TRUE(std::filesystem::is_empty("/config/swupdate"));
}

TEST_F(FirmwareJobHandlerTest, SuccessLeavesTheLastHttpCodeAlone) {
    zav::lastHttpCode = 404;
    EXPECT_EQ(run({entry("2.14")}), 2);
    EXPECT_EQ(zav::lastHttpCode, 404);
}

TEST_F(FirmwareJobHandlerTest, EmptiesTheStagingFolderFirst) {
    tests::writeFile("/config/swupdate/old.bin", "old");
    std::filesystem::create_directories("/config/swupdate/parts/1");
    installCleanUp("ls -A /config/swupdate >/tmp/clean-up");
    EXPECT_EQ(run({entry("2.14")}), 2);
    EXPECT_EQ(tests::contentOf("/tmp/clean-up"), "");
    EXPECT_EQ(tests::contentOf(image), "the image");
    EXPECT_FALSE(tests::exists("/config/swupdate/old.bin"));
    EXPECT_FALSE(tests::exists("/config/swupdate/parts"));
}

TEST_F(FirmwareJobHandlerTest, RefusalKeepsTheStagedImage) {
    tests::writeFile("/config/swupdate/old.bin", "old");
    EXPECT_EQ(run({entry("2.13.7")}), 0);
    EXPECT_EQ(tests::contentOf("/config/swupdate/old.bin"), "old");
}

TEST_F(FirmwareJobHandlerTest, FailedCleanUpPreventsTheDownload) {
    installCleanUp("exit 3");
    EXPECT_THROW(run({entry("2.14")}), os::ExecuteException);
    EXPECT_TRUE(server_.requests().empty());
    EXPECT_TRUE(phone_.properties->writes().empty());
}

TEST_F(FirmwareJobHandlerTest, ShutdownStopsTheCleanUp) {
    stop_->stop();
    EXPECT_THROW(run({entry("2.14")}), os::ExecuteException);
}

TEST_F(FirmwareJobHandlerTest, ExpandsPlaceholdersInUrlAndFileName) {
    server_.on("/00-0A-0B-0C-0D-0E.bin", fakes::HttpAnswer::ok("the image"));
    EXPECT_EQ(run({entry("2.14", false, "/%MACD.bin")}), 2);
    EXPECT_EQ(tests::contentOf("/config/swupdate/00-0A-0B-0C-0D-0E.bin"), "the image");
    EXPECT_EQ(phone_.properties->writesTo("State.FirmwareUpdate.Filename"),
              (std::vector<std::string>{"00-0A-0B-0C-0D-0E.bin"}));
}

TEST_F(FirmwareJobHandlerTest, QueryIsSentAndNotPartOfTheFileName) {
    server_.on("/image.bin", fakes::HttpAnswer::ok("the image"));
    EXPECT_EQ(run({entry("2.14", false, server_.url("/image.bin?phone=7"))}), 2);
    EXPECT_EQ(server_.requests().back().target, "/image.bin?phone=7");
    EXPECT_TRUE(tests::exists(image));
}

// Each of these names from a server must become one harmless file name inside the folder.
TEST_F(FirmwareJobHandlerTest, HostileFileNamesStayInTheFolder) {
    const std::map<std::string, std::string> names{
        {"a;touch.bin", "a_touch.bin"},
        {"$(id).bin", "__id_.bin"},
        {"`id`.bin", "_id_.bin"},
        {"-rf", "_rf"},
        {"..%2f..%2fetc", "..%2f..%2fetc"},
        {"a'b.bin", "a_b.bin"},
        {std::string(300, 'x'), std::string(200, 'x')},
    };
    for (const auto& [name, local] : names) {
        SCOPED_TRACE(name);
        phone_.log.forget();
        EXPECT_EQ(run({entry("2.14", false, "/" + name)}), 0);
        const auto lines = phone_.log.linesOf(source);
        ASSERT_FALSE(lines.empty());
        EXPECT_NE(lines.back().text.find("' to '/config/swupdate/" + local + "' status: "), std::string::npos)
            << lines.back();
        EXPECT_TRUE(std::filesystem::is_empty("/config/swupdate"));
    }
}

TEST_F(FirmwareJobHandlerTest, UrlsThatLeaveTheFolderThrow) {
    for (const char* url : {"/..", "/../x", "/a/../b", "/x\ny", "/a b"}) {
        EXPECT_THROW(run({entry("2.14", false, url)}), zav::UrlException) << url;
    }
}

TEST_F(FirmwareJobHandlerTest, ImageCountsTowardsTheFileLimitOfThePass) {
    pass_.usage().files = zav::Pass::maximumFiles;
    EXPECT_EQ(run({entry("2.14")}), 0);
    EXPECT_TRUE(server_.requests().empty());
    EXPECT_TRUE(phone_.properties->writes().empty());
}

}  // namespace
