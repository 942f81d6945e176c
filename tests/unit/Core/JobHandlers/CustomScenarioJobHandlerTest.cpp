#include "Core/JobHandlers/CustomScenarioJobHandler.h"

#include <filesystem>
#include <vector>

#include "fakes/TestAuthority.h"
#include "http/UrlInfo.h"
#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

using fakes::error;
using fakes::HttpAnswer;
using fakes::info;
using fakes::warning;
using zav::Attributes;
using zav::JobDescription;
using Hours = std::chrono::hours;
using Lines = fakes::LogCapture::Lines;
using Writes = std::vector<fakes::PropertyWrite>;

constexpr const char* source = "Core/JobHandlers/CustomScenarioJobHandler";
constexpr const char* stored = "/custom/certs/_storage/";
constexpr const char* contacts = "/var/volatile/contacts/";

// A worker that reports progress `steps` times and then is finished.
class ScriptedWorker : public zav::IProvisioningWorker {
 public:
    void startProvisioning(std::string url) override {
        calls.push_back("start " + url);
        left_ = steps;
    }
    void waitForProgress() override {
        calls.emplace_back("wait");
        if (left_ > 0) --left_;
    }
    bool isProvisioningFinished() override {
        calls.emplace_back("finished?");
        return left_ == 0;
    }
    std::string getProvisioningStatus() override {
        calls.emplace_back("status?");
        return status;
    }

    int steps = 1;
    std::string status = "success";
    std::vector<std::string> calls;

 private:
    int left_ = 0;
};

class CustomScenarioJobHandlerTest : public tests::HandlerFixture {
 protected:
    CustomScenarioJobHandlerTest() {
        for (const char* key : {"State.Security.Certificates.Pending", "State.Security.Certificates.Accept",
                                "State.Security.Certificates.Invalid", "State.LocalDirectoryUpdate.FileName",
                                "State.LocalDirectoryUpdate.Verify"}) {
            phone_.properties->put(key, "");
        }
        for (int key = 0; key < 9; ++key) {
            phone_.properties->put("FunctionKeys." + std::to_string(key) + "LockProvisioning", "1");
            phone_.properties->put("FunctionKeys." + std::to_string(key) + ".LockProvisioning", "1");
        }
        std::filesystem::remove_all("/custom/certs/_storage");
        std::filesystem::remove_all("/var/volatile/contacts");
        phone_.properties->forgetCalls();
    }

    int run(const std::vector<Attributes>& steps) {
        const JobDescription job{"custom", "step", steps};
        zav::CustomScenarioJobHandler handler(job, phone_.curl, phone_.security, phone_.properties, reader_, progress_,
                                              status_, worker_);
        return handler.run();
    }
    int runCertificate(const std::string& content, const std::string& flags = "") {
        server_.on("/ca.pem", HttpAnswer::ok(content));
        Attributes step{{"type", "certificate"}, {"url", "/ca.pem"}};
        if (!flags.empty()) step["flags"] = flags;
        return run({step});
    }
    Lines lines() const { return phone_.log.linesOf(source); }
    Writes writes() const { return phone_.properties->writes(); }
    std::string field(const std::string& job) {
        status_.setJobStatus(job, 0);
        return document();
    }

    const std::shared_ptr<ScriptedWorker> worker_ = std::make_shared<ScriptedWorker>();
    const fakes::TestAuthority authority_;
};

TEST_F(CustomScenarioJobHandlerTest, Name) {
    const JobDescription job;
    zav::CustomScenarioJobHandler handler(job, phone_.curl, phone_.security, phone_.properties, reader_, progress_,
                                          status_, worker_);
    EXPECT_EQ(handler.getName(), "CustomScenarioJobHandler");
}

TEST_F(CustomScenarioJobHandlerTest, UnknownStepsAreWarningsNotFailures) {
    EXPECT_EQ(run({{{"type", "Reboot"}}, {{"url", "/x"}}, {{"type", ""}}, {{"type", "Certificate"}}}), 2);
    EXPECT_EQ(lines(), (Lines{warning(source, "Custom step type 'Reboot' not implemented"),
                              warning(source, "Custom step type '\?\?\?' not implemented"),
                              warning(source, "Custom step type '' not implemented"),
                              warning(source, "Custom step type 'Certificate' not implemented")}));
    EXPECT_TRUE(writes().empty());
    EXPECT_TRUE(worker_->calls.empty());
}

TEST_F(CustomScenarioJobHandlerTest, SucceedsWithoutSteps) {
    EXPECT_EQ(run({}), 2);
    EXPECT_TRUE(lines().empty());
}

TEST_F(CustomScenarioJobHandlerTest, FailedStepFailsTheJobButLaterStepsRun) {
    server_.on("/book.xml", HttpAnswer::ok("<contacts/>"));
    EXPECT_EQ(run({{{"type", "certificate"}, {"url", "/none.pem"}},
                   {{"type", "LocalPhoneBook"}, {"url", "/book.xml"}},
                   {{"type", "UnlockAllFunctionKeys"}}}),
              0);
    EXPECT_EQ(tests::contentOf("/var/volatile/contacts/book.xml"), "<contacts/>");
    EXPECT_EQ(phone_.properties->writesTo("FunctionKeys.7LockProvisioning"), std::vector<std::string>{"0"});
    EXPECT_EQ(phone_.log.count(info(source, "Executing step: 'LocalPhoneBook'")), 1U);
}

TEST_F(CustomScenarioJobHandlerTest, StepsWithoutUrlThrow) {
    for (const char* type : {"certificate", "LocalPhoneBook", "Redirect"}) {
        EXPECT_THROW(run({{{"type", type}}}), std::out_of_range) << type;
    }
    for (const char* type : {"certificate", "LocalPhoneBook"}) {
        EXPECT_THROW(run({{{"type", type}, {"url", ""}}}), zav::UrlException) << type;
        EXPECT_THROW(run({{{"type", type}, {"url", "/../x"}}}), zav::UrlException) << type;
    }
}

// Function keys

TEST_F(CustomScenarioJobHandlerTest, UnlocksAllEightFunctionKeys) {
    EXPECT_EQ(run({{{"type", "UnlockAllFunctionKeys"}}}), 2);
    EXPECT_EQ(writes(), (Writes{{"FunctionKeys.0LockProvisioning", "", "0"},
                                {"FunctionKeys.1LockProvisioning", "", "0"},
                                {"FunctionKeys.2LockProvisioning", "", "0"},
                                {"FunctionKeys.3LockProvisioning", "", "0"},
                                {"FunctionKeys.4LockProvisioning", "", "0"},
                                {"FunctionKeys.5LockProvisioning", "", "0"},
                                {"FunctionKeys.6LockProvisioning", "", "0"},
                                {"FunctionKeys.7LockProvisioning", "", "0"}}));
    EXPECT_EQ(lines(), Lines{info(source, "Executing step: 'UnlockAllFunctionKeys'")});
}

// Certificates

TEST_F(CustomScenarioJobHandlerTest, ValidCertificateIsPending) {
    EXPECT_EQ(runCertificate(authority_.certificate()), 2);
    EXPECT_EQ(writes(), (Writes{{"State.Security.Certificates.Pending", "", "ca.pem"}}));
    EXPECT_EQ(tests::contentOf("/custom/certs/_storage/ca.pem"), authority_.certificate());
    EXPECT_EQ(lines(),
              (Lines{info(source, "Executing step: 'certificate'"),
                     info(source, "Downloading certificate from URL '" + server_.url("/ca.pem") + "' with flags ''"),
                     info(source, "Applying certificate 'ca.pem'")}));
}

TEST_F(CustomScenarioJobHandlerTest, ForcedCertificateIsAccepted) {
    EXPECT_EQ(runCertificate(authority_.issue("phone.test").der, "FORCE_ACCEPT"), 2);
    EXPECT_EQ(writes(), (Writes{{"State.Security.Certificates.Accept", "", "ca.pem"}}));
    EXPECT_TRUE(phone_.log.has(
        info(source, "Downloading certificate from URL '" + server_.url("/ca.pem") + "' with flags 'FORCE_ACCEPT'")));
}

TEST_F(CustomScenarioJobHandlerTest, OnlyTheExactFlagForcesACertificate) {
    EXPECT_EQ(runCertificate(authority_.certificate(), "force_accept"), 2);
    EXPECT_EQ(writes(), (Writes{{"State.Security.Certificates.Pending", "", "ca.pem"}}));
}

TEST_F(CustomScenarioJobHandlerTest, InvalidCertificateStaysInvalidWhenForced) {
    const auto good = authority_.issue("phone.test");
    const std::vector<std::pair<const char*, std::string>> rows{
        {"expired", authority_.issue("phone.test", Hours(-48), Hours(-24)).certificate},
        {"expired, DER", authority_.issue("phone.test", Hours(-48), Hours(-24)).der},
        {"not yet valid", authority_.issue("phone.test", Hours(24), Hours(48)).certificate},
        {"a private key", good.key},
        {"a key before the certificate's begin", "-----BEGIN CERTIFICATE-----\n" + good.key},
        {"two certificates", good.certificate + authority_.certificate()},
        {"a certificate cut short", good.certificate.substr(0, good.certificate.size() / 2)},
        {"DER cut short", good.der.substr(0, good.der.size() / 2)},
        {"DER and more", good.der + "x"},
        {"garbage", std::string(3000, '\x80')},
        {"text", "not here\n"},
        {"nothing", ""},
    };
    for (const auto& [name, content] : rows) {
        SCOPED_TRACE(name);
        phone_.properties->forgetCalls();
        EXPECT_EQ(runCertificate(content, "FORCE_ACCEPT"), 2);
        EXPECT_EQ(writes(), (Writes{{"State.Security.Certificates.Invalid", "", "ca.pem"}}));
    }
}

TEST_F(CustomScenarioJobHandlerTest, OversizedCertificateIsNotStored) {
    EXPECT_EQ(runCertificate(std::string(5U << 20U, '\x5a')), 0);
    EXPECT_TRUE(writes().empty());
    EXPECT_TRUE(std::filesystem::is_empty(stored));
    EXPECT_EQ(lines().back(),
              error(source, "Error downloading firmware file '" + server_.url("/ca.pem") + "' to '" + stored +
                                "ca.pem' status: Maximum file size exceeded HTTP status: 200 OK"));
}

TEST_F(CustomScenarioJobHandlerTest, MissingCertificateFailsAndIsReported) {
    EXPECT_EQ(run({{{"type", "certificate"}, {"url", "/none.pem"}}}), 0);
    EXPECT_EQ(zav::lastHttpCode, 404);
    EXPECT_EQ(lines().back(), error(source, "Error downloading firmware file '" + server_.url("/none.pem") + "' to '" +
                                                stored + "none.pem' status: No error HTTP status: 404 Not Found"));
    const std::string text = field("custom");
    EXPECT_NE(text.find("\"extraInfo\" : \"HTTP: 404 Not Found\""), std::string::npos) << text;
    EXPECT_TRUE(writes().empty());
}

TEST_F(CustomScenarioJobHandlerTest, FailedCertificateWriteFailsTheStep) {
    phone_.properties->failKey("State.Security.Certificates.Pending");
    EXPECT_EQ(runCertificate(authority_.certificate()), 0);
    const auto last = lines().back();
    EXPECT_EQ(last.level, "error");
    EXPECT_EQ(last.text.rfind("Error applying certificate 'ca.pem'='/custom/certs/_storage/ca.pem'Property "
                              "'State.Security.Certificates.Pending'",
                              0),
              0U)
        << last;
}

/// Security whose certificate check throws.
class FailingSecurity : public zav::Security {
 public:
    using Security::Security;
    int checkCertificate(const std::string& path) override { throw std::runtime_error("cannot read " + path); }
};

TEST_F(CustomScenarioJobHandlerTest, FailedCertificateCheckFailsTheStep) {
    server_.on("/ca.pem", HttpAnswer::ok(authority_.certificate()));
    FailingSecurity security(phone_.properties);
    const JobDescription job{
        "custom", "step", {{{"type", "certificate"}, {"url", "/ca.pem"}, {"flags", "FORCE_ACCEPT"}}}};
    zav::CustomScenarioJobHandler handler(job, phone_.curl, security, phone_.properties, reader_, progress_, status_,
                                          worker_);
    EXPECT_EQ(handler.run(), 0);
    EXPECT_EQ(lines().back(), error(source,
                                    "Error applying certificate 'ca.pem'='/custom/certs/_storage/ca.pem'cannot read "
                                    "/custom/certs/_storage/ca.pem"));
    EXPECT_TRUE(writes().empty());
}

TEST_F(CustomScenarioJobHandlerTest, ExpandsPlaceholdersInCertificateNames) {
    server_.on("/00:0A:0B:0C:0D:0E.pem", HttpAnswer::ok(authority_.certificate()));
    EXPECT_EQ(run({{{"type", "certificate"}, {"url", "/%MACC.pem"}}}), 2);
    EXPECT_TRUE(tests::exists("/custom/certs/_storage/00:0A:0B:0C:0D:0E.pem"));
    EXPECT_EQ(writes(), (Writes{{"State.Security.Certificates.Pending", "", "00:0A:0B:0C:0D:0E.pem"}}));
}

// Redirect

TEST_F(CustomScenarioJobHandlerTest, RedirectWaitsForTheEndOfTheNestedPass) {
    worker_->steps = 3;
    EXPECT_EQ(run({{{"type", "Redirect"}, {"url", "https://other.test/phones/"}}}), 2);
    EXPECT_EQ(worker_->calls, (std::vector<std::string>{"start https://other.test/phones/", "wait", "finished?", "wait",
                                                        "finished?", "wait", "finished?", "status?"}));
    progress_.waitForProgress();  // would block if the nested progress were not forwarded
}

TEST_F(CustomScenarioJobHandlerTest, RedirectSucceedsOnlyIfTheNestedPassDoes) {
    for (const char* status : {"partSuccess", "fail", "", "Success"}) {
        worker_->status = status;
        EXPECT_EQ(run({{{"type", "Redirect"}, {"url", "http://other.test/"}}}), 0) << status;
    }
}

// The phone book

TEST_F(CustomScenarioJobHandlerTest, PhoneBookIsPassedToTheDirectoryService) {
    server_.on("/book.xml", HttpAnswer::ok("<contacts/>"));
    EXPECT_EQ(run({{{"type", "LocalPhoneBook"}, {"url", "/book.xml"}, {"renewPeriod", "7200"}}}), 2);
    EXPECT_EQ(tests::contentOf("/var/volatile/contacts/book.xml"), "<contacts/>");
    EXPECT_EQ(writes(), (Writes{{"State.LocalDirectoryUpdate.FileName", "", "book.xml"},
                                {"State.LocalDirectoryUpdate.Verify", "", "request"},
                                {"System.Provision.Period", "", "7200"}}));
    EXPECT_EQ(lines(), (Lines{info(source, "Executing step: 'LocalPhoneBook'"),
                              info(source, "Downloading PhoneBook from URL '" + server_.url("/book.xml") + "'")}));
}

// Placeholders are expanded in the URL but not in the local name: the directory service looks for the unexpanded name.
TEST_F(CustomScenarioJobHandlerTest, KeepsPlaceholdersInPhoneBookNames) {
    server_.on("/00-0A-0B-0C-0D-0E.xml", HttpAnswer::ok("<contacts/>"));
    EXPECT_EQ(run({{{"type", "LocalPhoneBook"}, {"url", "/%MACD.xml"}}}), 2);
    EXPECT_EQ(tests::contentOf("/var/volatile/contacts/%MACD.xml"), "<contacts/>");
    EXPECT_FALSE(tests::exists("/var/volatile/contacts/00-0A-0B-0C-0D-0E.xml"));
    EXPECT_EQ(phone_.properties->writesTo("State.LocalDirectoryUpdate.FileName"),
              std::vector<std::string>{"%MACD.xml"});
}

TEST_F(CustomScenarioJobHandlerTest, NoRenewPeriodLeavesThePeriodAlone) {
    server_.on("/book.xml", HttpAnswer::ok("<contacts/>"));
    EXPECT_EQ(run({{{"type", "LocalPhoneBook"}, {"url", "/book.xml"}},
                   {{"type", "LocalPhoneBook"}, {"url", "/book.xml"}, {"renewPeriod", ""}}}),
              2);
    EXPECT_TRUE(phone_.properties->writesTo("System.Provision.Period").empty());
    EXPECT_EQ(writes().size(), 4U);
}

TEST_F(CustomScenarioJobHandlerTest, CheckSyncSkipsThePhoneBook) {
    phone_.properties->put("State.Provisioning", "request-check-sync");
    EXPECT_EQ(run({{{"type", "LocalPhoneBook"}, {"renewPeriod", "7200"}}}), 2) << "the URL must not be used";
    EXPECT_EQ(lines(), (Lines{info(source, "Executing step: 'LocalPhoneBook'"),
                              info(source, "Download of local phone book skipped")}));
    EXPECT_TRUE(writes().empty());
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(CustomScenarioJobHandlerTest, FailedPhoneBookDownloadKeepsTheOldFile) {
    std::filesystem::create_directories(contacts);
    tests::writeFile("/var/volatile/contacts/book.xml", "the old one");
    server_.on("/book.xml", HttpAnswer::error(500));
    EXPECT_EQ(run({{{"type", "LocalPhoneBook"}, {"url", "/book.xml"}, {"renewPeriod", "7200"}}}), 0);
    EXPECT_EQ(tests::contentOf("/var/volatile/contacts/book.xml"), "the old one");
    EXPECT_EQ(zav::lastHttpCode, 500);
    EXPECT_TRUE(writes().empty());
    EXPECT_EQ(lines().back(),
              error(source, "Error downloading LocalPhoneBook file '" + server_.url("/book.xml") + "' to '" + contacts +
                                "book.xml' status: No error HTTP status: 500 Internal Server Error"));
    const std::string text = field("custom");
    EXPECT_NE(text.find("\"extraInfo\" : \"HTTP: 500 Internal Server Error\""), std::string::npos) << text;
}

TEST_F(CustomScenarioJobHandlerTest, DownloadsCountTowardsTheFileLimitOfThePass) {
    server_.on("/book.xml", fakes::HttpAnswer::ok("<book/>"));
    pass_.usage().files = zav::Pass::maximumFiles - 1;
    EXPECT_EQ(run({{{"type", "LocalPhoneBook"}, {"url", "/book.xml"}}, {{"type", "certificate"}, {"url", "/one.pem"}}}),
              0);
    EXPECT_EQ(server_.requests().size(), 1U);
    EXPECT_TRUE(phone_.log.has(fakes::error(
        "Core/JobHandlers/JobHandler",
        "File " + server_.url("/one.pem") + " follows 1000 others in this pass and will not be downloaded")));
    EXPECT_EQ(phone_.log.count(info(source, "Applying certificate 'one.pem'")), 0U);
}

TEST_F(CustomScenarioJobHandlerTest, ShutdownStopsAScenario) {
    phone_.properties->onWrite([this](const fakes::PropertyWrite&) { stop_->stop(); });
    EXPECT_THROW(run({{{"type", "UnlockAllFunctionKeys"}}, {{"type", "UnlockAllFunctionKeys"}}}),
                 zav::ShuttingDownException);
    EXPECT_EQ(phone_.properties->writes().size(), 8U) << "only the first step";
}

}  // namespace
