// The two handlers that fetch further files: MasterJobHandler and FileDownloadHandler.
#include <thread>

#include "Core/JobHandlers/FileDownloadHandler.h"

#include "Core/JobHandlers/MasterJobHandler.h"
#include "http/UrlInfo.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using zav::JobDescription;

class ReferringHandlersTest : public tests::HandlerFixture {
 protected:
    void serve(const std::string& path, const std::string& root, const std::string& inside) {
        server_.on(path, fakes::HttpAnswer::ok(tests::provisioningFile(root, "1.0", inside)));
    }
    int runMaster(const std::vector<zav::Attributes>& categories) {
        const JobDescription job{"provisioning", "category", categories};
        return make<zav::MasterJobHandler>(job)->run();
    }
    int runDownload(const std::vector<zav::Attributes>& files, const std::string& name = "nvm") {
        const JobDescription job{name, "file", files};
        return make<zav::FileDownloadHandler>(job)->run();
    }
};

TEST_F(ReferringHandlersTest, Names) {
    const JobDescription job;
    EXPECT_EQ(make<zav::MasterJobHandler>(job)->getName(), "MasterJobHandler");
    EXPECT_EQ(make<zav::FileDownloadHandler>(job)->getName(), "FileDownloadHandler");
}

TEST_F(ReferringHandlersTest, ThreeJobTypesAreSupported) {
    const JobDescription job;
    const auto handler = make<zav::MasterJobHandler>(job);
    for (const char* type : {"firmware", "nvm", "custom"}) EXPECT_TRUE(handler->isSupportedJobType(type));
    for (const char* type : {"file", "settings", "", "NVM", "provisioning"})
        EXPECT_FALSE(handler->isSupportedJobType(type));
}

TEST_F(ReferringHandlersTest, UnsupportedCategoriesAreSkippedSilently) {
    EXPECT_EQ(runMaster({{{"type", "file"}}, {{"type", "settings"}}}), 2);
    EXPECT_TRUE(phone_.log.lines().empty());
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(ReferringHandlersTest, CategoryWithoutTypeOrUrlThrows) {
    EXPECT_THROW(runMaster({{{"url", "/x"}}}), std::out_of_range);
    EXPECT_THROW(runMaster({{{"type", "nvm"}}}), std::out_of_range);
    EXPECT_THROW(runMaster({{{"type", "nvm"}, {"url", ""}}}), zav::UrlException);
}

TEST_F(ReferringHandlersTest, FailedCategoryDoesNotStopTheNext) {
    serve("/good.xml", "nvm", "<file version=\"none\" url=\"/x\"/>");
    EXPECT_EQ(runMaster({{{"type", "firmware"}, {"url", "/bad.xml"}}, {{"type", "nvm"}, {"url", "/good.xml"}}}), 2);
    EXPECT_EQ(zav::lastHttpCode, 404);
    const std::string all = document();
    EXPECT_NE(all.find("\"extraInfo\" : \"HTTP: 404 Not Found\""), std::string::npos) << all;
    EXPECT_NE(all.find("\"xmlFileStatus\" : \"fail\""), std::string::npos) << all;
    EXPECT_NE(all.find("\"nvm\""), std::string::npos) << all;
    EXPECT_EQ(server_.requests().size(), 2U);
    EXPECT_TRUE(tests::exists("/var/volatile/provisioning/nvm/good.xml"));
}

TEST_F(ReferringHandlersTest, JobFileMayBeAFullUrlWithPlaceholders) {
    serve("/00:0A:0B:0C:0D:0E.xml", "nvm", "<file version=\"none\" url=\"/x\"/>");
    runMaster({{{"type", "nvm"}, {"url", server_.url("/%MACC.xml")}}});
    EXPECT_TRUE(phone_.log.has(
        info("Core/JobHandlers/MasterJobHandler", "Found nvm job type with URL: " + server_.url("/%MACC.xml"))));
    EXPECT_EQ(server_.requestsFor("/00:0A:0B:0C:0D:0E.xml").size(), 1U);
    EXPECT_TRUE(tests::exists("/var/volatile/provisioning/nvm/00:0A:0B:0C:0D:0E.xml"));
}

TEST_F(ReferringHandlersTest, NothingIsFetchedWithoutAValidVersion) {
    EXPECT_EQ(runDownload({{{"version", "none"}, {"url", "/x"}}}), 0);
    EXPECT_TRUE(server_.requests().empty());
    EXPECT_TRUE(phone_.log.has(info("Core/JobHandlers/FileDownloadHandler", "Running FileDownloadHandlerJob on: nvm")));
    EXPECT_EQ(document().find("\"nvm\""), std::string::npos);
}

TEST_F(ReferringHandlersTest, FailedFileIsReportedUnderTheJobName) {
    EXPECT_EQ(runDownload({{{"url", "/missing.xml"}}}, "custom"), 0);
    EXPECT_EQ(zav::lastHttpCode, 404);
    status_.setJobStatus("custom", 0);
    const std::string all = document();
    EXPECT_NE(all.find("\"custom\""), std::string::npos) << all;
    EXPECT_NE(all.find("\"extraInfo\" : \"HTTP: 404 Not Found\""), std::string::npos) << all;
    EXPECT_NE(all.find("\"xmlFileStatus\" : \"fail\""), std::string::npos) << all;
}

TEST_F(ReferringHandlersTest, ResultOfAFileIsThatOfItsLastJob) {
    phone_.properties->put("A", "");
    serve("/fail-then-success.xml", "settings",
          "<nvm><param name=\"unknown\" value=\"1\"/></nvm><nvm><param name=\"A\" value=\"1\"/></nvm>");
    EXPECT_EQ(runDownload({{{"url", "/fail-then-success.xml"}}}), 2);
    serve("/success-then-fail.xml", "settings",
          "<nvm><param name=\"A\" value=\"1\"/></nvm><nvm><param name=\"unknown\" value=\"1\"/></nvm>");
    EXPECT_EQ(runDownload({{{"url", "/success-then-fail.xml"}}}), 0);
    EXPECT_TRUE(phone_.log.has(
        info("Core/JobHandlers/FileDownloadHandler", "Found job with URL: " + server_.url("/success-then-fail.xml"))));
}

TEST_F(ReferringHandlersTest, ResultOfACategoryIsThatOfItsLastJob) {
    phone_.properties->put("A", "");
    serve("/good.xml", "settings", R"(<param name="A" value="1"/>)");
    const std::string good = R"(<nvm><file url="/good.xml"/></nvm>)";
    const std::string missing = R"(<nvm><file url="/missing.xml"/></nvm>)";
    serve("/fail-then-success.xml", "nvm", missing + good);
    serve("/success-then-fail.xml", "nvm", good + missing);
    EXPECT_EQ(runMaster({{{"type", "nvm"}, {"url", "/fail-then-success.xml"}}}), 2);
    EXPECT_NE(document().find("\"jobStatus\" : \"success\""), std::string::npos) << document();
    status_.resetStatus();
    EXPECT_EQ(runMaster({{{"type", "nvm"}, {"url", "/success-then-fail.xml"}}}), 2);
    EXPECT_NE(document().find("\"jobStatus\" : \"fail\""), std::string::npos) << document();
}

TEST_F(ReferringHandlersTest, CategoryDoesNotSeeEarlierJobs) {
    serve("/nvm.xml", "nvm", R"(<file version="none" url="/x"/>)");
    serve("/custom.xml", "custom", R"(<file version="none" url="/x"/>)");
    runMaster({{{"type", "nvm"}, {"url", "/nvm.xml"}}, {{"type", "custom"}, {"url", "/custom.xml"}}});
    EXPECT_EQ(phone_.log.count(info("Core/JobHandlers/JobHandler", "+++++ Starting FileDownloadHandler")), 2U);
    for (const auto& line : phone_.log.linesOf("Core/JobHandlers/JobHandler")) {
        EXPECT_EQ(line.text.find("is not valid for provisioning version"), std::string::npos) << line;
    }
    EXPECT_TRUE(phone_.log.linesOf("Core/JobHandlers/MasterJobHandler").back().text.find("Found custom") == 0);
}

// A settings job of the first category changes the server.
TEST_F(ReferringHandlersTest, EachCategoryReadsTheServerAgain) {
    serve("/nvm.xml", "nvm", R"(<file url="/settings.xml"/>)");
    serve("/settings.xml", "settings",
          "<param name=\"System.Provision.ProvisioningServer\" value=\"" + server_.url("/moved/") + "\"/>");
    runMaster({{{"type", "nvm"}, {"url", "/nvm.xml"}}, {{"type", "custom"}, {"url", "/custom.xml"}}});
    EXPECT_EQ(server_.requestsFor("/moved/custom.xml").size(), 1U);
    EXPECT_TRUE(server_.requestsFor("/custom.xml").empty());
}

// The code is that of the latest failure; a file that cannot be verified is a failure although its code is 200.
TEST_F(ReferringHandlersTest, UnverifiedFileSetsTheHttpCode) {
    server_.on("/other.xml", fakes::HttpAnswer::ok("<nvm version=\"1.0\" productID=\"other\"/>"));
    runMaster({{{"type", "nvm"}, {"url", "/missing.xml"}}});
    ASSERT_EQ(zav::lastHttpCode, 404);
    runMaster({{{"type", "nvm"}, {"url", "/other.xml"}}});
    EXPECT_EQ(zav::lastHttpCode, 200);
    runDownload({{{"url", "/missing.xml"}}});
    ASSERT_EQ(zav::lastHttpCode, 404);
    runDownload({{{"url", "/other.xml"}}});
    EXPECT_EQ(zav::lastHttpCode, 200);
}

TEST_F(ReferringHandlersTest, ExpandsPlaceholdersInIncludedFileNames) {
    serve("/00-0A-0B-0C-0D-0E.xml", "settings", "");
    runDownload({{{"url", "/%MACD.xml"}}});
    EXPECT_TRUE(tests::exists("/var/volatile/provisioning/nvm/00-0A-0B-0C-0D-0E.xml"));
    EXPECT_FALSE(tests::exists("/var/volatile/provisioning/nvm/%MACD.xml"));
}

/// A handler whose downloads always give these jobs.
template <typename Handler>
class FixedJobs : public Handler {
 public:
    using Handler::Handler;
    bool downloadAndParse(const std::string&, const std::string&, std::vector<JobDescription>& jobs) override {
        jobs = {{"nvm", "param", {}}, {"nvm", "file", {}}};
        return true;
    }
};

TEST_F(ReferringHandlersTest, JobsWithoutItemsAreSkipped) {
    const auto line = [](const std::string& handler) {
        return info("Core/JobHandlers/" + handler, "Node: nvm has no child nodes, skipping");
    };
    const JobDescription files{"nvm", "file", {{{"url", "/any.xml"}}}};
    EXPECT_EQ(make<FixedJobs<zav::FileDownloadHandler>>(files)->run(), 0);
    EXPECT_EQ(phone_.log.count(line("FileDownloadHandler")), 2U);
    const JobDescription categories{"provisioning", "category", {{{"type", "nvm"}, {"url", "/any.xml"}}}};
    EXPECT_EQ(make<FixedJobs<zav::MasterJobHandler>>(categories)->run(), 2);
    EXPECT_EQ(phone_.log.count(line("MasterJobHandler")), 1U) << "the version does not allow the other";
    EXPECT_FALSE(phone_.log.has(info("Core/JobHandlers/JobHandler", "+++++ Starting NVMJobHandler")));
    EXPECT_FALSE(phone_.log.has(info("Core/JobHandlers/JobHandler", "+++++ Starting FileDownloadHandler")));
    EXPECT_EQ(document().find("\"jobStatus\""), std::string::npos) << document();
}

TEST_F(ReferringHandlersTest, FileWithoutJobsFails) {
    serve("/empty.xml", "settings", "");
    EXPECT_EQ(runDownload({{{"url", "/empty.xml"}}}), 0);
}

// Every level includes the file twice: without a limit on files that would be 2^15 downloads.
TEST_F(ReferringHandlersTest, FileThatIncludesItselfTwiceEnds) {
    serve("/twice.xml", "nvm", "<nvm><file url=\"/twice.xml\"/></nvm><nvm><file url=\"/twice.xml\"/></nvm>");
    EXPECT_EQ(runDownload({{{"url", "/twice.xml"}}}), 0);
    EXPECT_EQ(server_.requests().size(), 1000U);
    EXPECT_TRUE(phone_.log.has(
        error("Core/JobHandlers/JobHandler", "Job: nvm is nested more than 16 handlers deep and will not be started")));
    EXPECT_TRUE(phone_.log.has(
        error("Core/JobHandlers/JobHandler",
              "File " + server_.url("/twice.xml") + " follows 1000 others in this pass and will not be downloaded")));
}

TEST_F(ReferringHandlersTest, AppliesAFileOfTwelveHundredGroups) {
    std::string groups;
    for (int group = 0; group < 1200; ++group)
        groups += "<nvm><param name=\"A\" value=\"" + std::to_string(group) + "\"/></nvm>";
    phone_.properties->put("A", "");
    serve("/groups.xml", "settings", groups);
    EXPECT_EQ(runDownload({{{"url", "/groups.xml"}}}), 2);
    EXPECT_EQ(phone_.properties->writesTo("A").size(), 1200U);
}

TEST_F(ReferringHandlersTest, AllFilesOfAPassShareOneItemBudget) {
    phone_.properties->put("A", "");
    serve("/two.xml", "settings", R"(<param name="A" value="1"/><param name="A" value="2"/>)");
    pass_.usage().items = zav::Pass::maximumItems - 3;
    EXPECT_EQ(runDownload({{{"url", "/two.xml"}}}), 2);
    EXPECT_EQ(runDownload({{{"url", "/two.xml"}}}), 0) << "one item too many";
    serve("/one.xml", "settings", R"(<param name="A" value="3"/>)");
    EXPECT_EQ(runDownload({{{"url", "/one.xml"}}}), 0) << "a refused file uses up the rest of the budget";
    EXPECT_TRUE(phone_.log.has(error("Core/JobHandlers/ProvisioningFileParser",
                                     "File /var/volatile/provisioning/nvm/two.xml brings the pass to more than "
                                     "1000000 items, none of its jobs will be started")));
    EXPECT_EQ(phone_.properties->writesTo("A"), (std::vector<std::string>{"1", "2"}));
}

TEST_F(ReferringHandlersTest, LastItemOfThePassIsApplied) {
    phone_.properties->put("A", "");
    serve("/two.xml", "settings", R"(<param name="A" value="1"/><param name="A" value="2"/>)");
    pass_.usage().items = zav::Pass::maximumItems - 2;
    EXPECT_EQ(runDownload({{{"url", "/two.xml"}}}), 2);
    EXPECT_EQ(phone_.properties->writesTo("A"), (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(pass_.usage().items, zav::Pass::maximumItems);
}

TEST_F(ReferringHandlersTest, NoJobStartsDuringShutdown) {
    phone_.properties->put("A", "");
    serve("/groups.xml", "settings", R"(<nvm><param name="A" value="1"/></nvm><nvm><param name="A" value="2"/></nvm>)");
    phone_.properties->onWrite([this](const fakes::PropertyWrite&) { stop_->stop(); });
    EXPECT_THROW(runDownload({{{"url", "/groups.xml"}}}), zav::ShuttingDownException);
    EXPECT_EQ(phone_.properties->writesTo("A"), std::vector<std::string>{"1"});
}

TEST_F(ReferringHandlersTest, ShutdownStopsLoopsOverCategoriesAndVersions) {
    stop_->stop();
    EXPECT_THROW(runMaster({{{"type", "other"}}}), zav::ShuttingDownException);
    EXPECT_THROW(runDownload({{{"version", "2016-01-01_00:00:00"}, {"url", "/x"}}}), zav::ShuttingDownException);
    std::vector<JobDescription> jobs{{"settings", "param", {}}};
    EXPECT_THROW(zav::removeJobsNotAllowed(jobs), zav::ShuttingDownException);
}

}  // namespace
