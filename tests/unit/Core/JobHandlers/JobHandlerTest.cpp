#include "Core/JobHandlers/JobHandler.h"

#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using zav::JobDescription;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/JobHandlers/JobHandler";

class PlainHandler : public zav::JobHandler {
 public:
    using JobHandler::JobHandler;
    int run() override { return zav::jobSuccess; }
};

class JobHandlerTest : public tests::HandlerFixture {
 protected:
    std::string newest(const std::vector<zav::Attributes>& items) {
        const JobDescription job{"nvm", "file", items};
        return make<PlainHandler>(job)->findNewestUrl(job);
    }
    static zav::Attributes file(const std::string& version, const std::string& url) {
        return {{"version", version}, {"url", url}};
    }

    const JobDescription job_{"nvm", "file", {}};
};

TEST_F(JobHandlerTest, BaseClassName) { EXPECT_EQ(make<PlainHandler>(job_)->getName(), "JobHandler"); }

TEST_F(JobHandlerTest, NewestFileIsChosen) {
    EXPECT_EQ(
        newest({file("2016-03-01_12:00:00", "a"), file("2016-04-01_08:30:00", "b"), file("2015-12-31_23:59:59", "c")}),
        "b");
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "Newest:b")});
    EXPECT_EQ(newest({file("2016-01-01_00:00:00", "a"), file("V001.000.000", "v"), file("2017-01-01_00:00:00", "b")}),
              "v");
    EXPECT_EQ(newest({file("2016-01-01_00:00:00", "first"), file("2016-01-01_00:00:00", "second")}), "first");
    EXPECT_EQ(newest({file("V002.000.000", "two"), file("V010.000.000", "ten")}), "ten");
}

TEST_F(JobHandlerTest, FileWithoutVersionEndsTheScan) {
    EXPECT_EQ(newest({file("2016-01-01_00:00:00", "A"), {{"url", "B"}}, file("2018-01-01_00:00:00", "C")}), "B");
    EXPECT_EQ(phone_.log.lines(), (Lines{info(source, "Found url without version tag, assuming newest version is: B"),
                                         info(source, "Newest:B")}));
}

TEST_F(JobHandlerTest, FileWithAnInvalidVersionIsSkipped) {
    EXPECT_EQ(newest({file("2016-13-01_00:00:00", "a"), file("2016-01-01_00:00:00", "b")}), "b");
    EXPECT_EQ(phone_.log.lines(), (Lines{warning(source,
                                                 "Version '2016-13-01_00:00:00' doesn't match YYYY-MM-DD_HH:MM:SS "
                                                 "format."),
                                         info(source, "Newest:b")}));
}

TEST_F(JobHandlerTest, NoUrlWithoutAValidFile) {
    EXPECT_EQ(newest({}), "");
    EXPECT_EQ(newest({file("", "a")}), "");
    EXPECT_EQ(phone_.log.count(info(source, "Newest:")), 2U);
}

TEST_F(JobHandlerTest, ShutdownStopsTheScan) {
    stop_->stop();
    EXPECT_THROW(newest({file("2016-01-01_00:00:00", "a")}), zav::ShuttingDownException);
}

TEST_F(JobHandlerTest, FileWithoutUrlThrows) {
    EXPECT_THROW(newest({{{"version", "2016-01-01_00:00:00"}}}), std::out_of_range);
    EXPECT_THROW(newest({{{"name", "x"}}}), std::out_of_range);
}

TEST_F(JobHandlerTest, UrlMayBeMissingWhereItIsNotUsed) {
    EXPECT_EQ(newest({{{"version", "2016-13-01_00:00:00"}}, file("2016-01-01_00:00:00", "b")}), "b");
    EXPECT_EQ(newest({file("2016-01-01_00:00:00", "b"), {{"version", "2015-01-01_00:00:00"}}}), "b")
        << "an older version needs no URL either";
}

TEST_F(JobHandlerTest, VersionStrings) {
    for (const char* version : {"2016-03-01_12:00:00", "2000-01-01_00:00:00", "2099-12-31_23:59:59", "V001.000.000",
                                "V123x456y789", "2016-02-31_00:00:00"}) {
        EXPECT_TRUE(zav::isValidVersion(version)) << version;
    }
    EXPECT_TRUE(phone_.log.lines().empty());
    for (const char* version : {"",
                                "V1.2.3",
                                "2016-13-01_00:00:00",
                                "2016-00-01_00:00:00",
                                "2016-01-32_00:00:00",
                                "2016-01-00_00:00:00",
                                "2016-01-01_24:00:00",
                                "2016-01-01_00:60:00",
                                "2016-01-01_00:00:60",
                                "1999-01-01_00:00:00",
                                "2100-01-01_00:00:00",
                                "2016-01-01 00:00:00",
                                " 2016-01-01_00:00:00",
                                "2016-01-01_00:00:00 ",
                                "1000-01-01_01:01:01",
                                "Vddd.ddd.ddd",
                                "v001.000.000",
                                "V001.000.0000",
                                "V0010000000",
                                "2016-01-01_00:00:00\n"}) {
        EXPECT_FALSE(zav::isValidVersion(version)) << version;
    }
}

TEST_F(JobHandlerTest, RemovesJobsThatTheVersionDoesNotAllow) {
    const std::vector<std::pair<std::string, std::string>> pairs{
        {"provisioning", "category"}, {"nvm", "file"},  {"custom", "file"}, {"firmware", "file"}, {"settings", "param"},
        {"scenario", "step"},         {"nvm", "param"}, {"custom", "step"}, {"NVM", "param"},     {"", ""}};
    const auto allowed = [&](const std::string& version) {
        zav::setCurrentProvisioningVersion(version);
        std::vector<JobDescription> jobs;
        for (const auto& [name, item] : pairs) jobs.push_back({name, item, {}});
        zav::removeJobsNotAllowed(jobs);
        std::string text;
        for (const auto& job : jobs) text += job.name + "/" + job.itemName + " ";
        return text;
    };
    EXPECT_EQ(allowed("1.0"), "provisioning/category nvm/file custom/file firmware/file settings/param scenario/step ");
    EXPECT_EQ(allowed("1.1"), "firmware/file nvm/param custom/step ");
    EXPECT_EQ(allowed("1.05"), "");
    EXPECT_EQ(allowed(""), "");
    EXPECT_TRUE(phone_.log.has(warning(source,
                                       "Job: settings param is not valid for provisioning version: 1.1 and it "
                                       "will not be started")));
    EXPECT_EQ(phone_.log.lines().size(), 4U + 7U + 10U + 10U);
}

TEST_F(JobHandlerTest, NestedJobGetsItsOwnHandler) {
    phone_.properties->put("Audio.Volume", "1");
    const JobDescription further{"settings", "param", {{{"name", "Audio.Volume"}, {"value", "5"}}}};
    EXPECT_EQ(make<PlainHandler>(job_)->startJob(further), 2);
    EXPECT_EQ(phone_.log.linesOf(source),
              (Lines{info(source, "+++++ Starting NVMJobHandler"), info(source, "-----Finishing NVMJobHandler")}));
}

TEST_F(JobHandlerTest, NestedJobOfUnknownTypeFails) {
    EXPECT_EQ(make<PlainHandler>(job_)->startJob({"category", "x", {}}), 0);
    EXPECT_EQ(phone_.log.lines(), Lines{warning("Core/JobHandlers/JobHandlerFactory", "Unknown job type !")});
}

TEST_F(JobHandlerTest, FileWithTooManyItemsAppendsNothing) {
    server_.on("/job.xml", fakes::HttpAnswer::ok(tests::provisioningFile("nvm", "1.0", "<file url=\"/x\"/>")));
    pass_.usage().items = zav::Pass::maximumItems;
    std::vector<JobDescription> jobs{{"before", "x", {}}};
    EXPECT_TRUE(make<PlainHandler>(job_)->downloadAndParse(server_.url("/job.xml"),
                                                           "/var/volatile/provisioning/nvm/job.xml", jobs));
    ASSERT_EQ(jobs.size(), 1U);
    EXPECT_EQ(jobs[0].name, "before");
}

TEST_F(JobHandlerTest, FileBeyondTheLimitOfThePassFails) {
    server_.on("/job.xml", fakes::HttpAnswer::ok(tests::provisioningFile("nvm", "1.0", "<file url=\"/x\"/>")));
    const auto downloads = [&] {
        std::vector<JobDescription> jobs;
        return make<PlainHandler>(job_)->downloadAndParse(server_.url("/job.xml"),
                                                          "/var/volatile/provisioning/nvm/job.xml", jobs);
    };
    pass_.usage().files = zav::Pass::maximumFiles - 1;
    EXPECT_TRUE(downloads());
    EXPECT_FALSE(downloads());
    EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(JobHandlerTest, NothingIsDownloadedDuringShutdown) {
    stop_->stop();
    std::vector<JobDescription> jobs;
    EXPECT_THROW(make<PlainHandler>(job_)->downloadAndParse(server_.url("/job.xml"),
                                                            "/var/volatile/provisioning/nvm/job.xml", jobs),
                 zav::ShuttingDownException);
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(JobHandlerTest, DownloadsVerifiesAndAppendsTheJobs) {
    server_.on("/job.xml", fakes::HttpAnswer::ok(tests::provisioningFile("nvm", "1.0", "<file url=\"/x\"/>")));
    std::vector<JobDescription> jobs{{"before", "x", {}}};
    EXPECT_TRUE(make<PlainHandler>(job_)->downloadAndParse(server_.url("/job.xml"),
                                                           "/var/volatile/provisioning/nvm/job.xml", jobs));
    ASSERT_EQ(jobs.size(), 2U);
    EXPECT_EQ(jobs[1].name, "nvm");
    EXPECT_EQ(jobs[1].itemName, "file");
    EXPECT_TRUE(phone_.log.linesOf(source).empty()) << phone_.log.text();
}

TEST_F(JobHandlerTest, FailedDownloadIsLoggedAndItsHttpCodeKept) {
    std::vector<JobDescription> jobs;
    const std::string url = server_.url("/missing.xml");
    EXPECT_FALSE(make<PlainHandler>(job_)->downloadAndParse(url, "/var/volatile/provisioning/nvm/job.xml", jobs));
    EXPECT_EQ(zav::lastHttpCode, 404);
    EXPECT_TRUE(jobs.empty());
    EXPECT_TRUE(phone_.log.has(warning(source, "Error downloading file: " + url)));
    EXPECT_TRUE(phone_.log.has(error(source, "Curl Error: No error HTTP Error: 404 Not Found")));
}

TEST_F(JobHandlerTest, SuccessfulDownloadLeavesTheHttpCodeAlone) {
    zav::lastHttpCode = 404;
    server_.on("/job.xml", fakes::HttpAnswer::ok("no XML"));
    std::vector<JobDescription> jobs;
    const std::string destination = "/var/volatile/provisioning/nvm/job.xml";
    EXPECT_FALSE(make<PlainHandler>(job_)->downloadAndParse(server_.url("/job.xml"), destination, jobs));
    EXPECT_EQ(zav::lastHttpCode, 404);
    EXPECT_TRUE(phone_.log.has(warning(source, "XML verification failed for: " + destination)));
}

}  // namespace
