// Passes with redirects to other servers, with real workers.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Core/Pass.h"
#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "fakes/HttpServer.h"
#include "unit/Core/support/Phone.h"

namespace {

using fakes::error;
using fakes::HttpAnswer;
using fakes::info;
using tests::provisioningFile;

constexpr const char* source = "Core/ProvisioningWatchdog/ProvisioningWorker";
const fakes::LogLine tooManyRedirects = error(source, "Redirected too often, provisioning not started");

std::string redirect(const std::string& url) { return R"(<step type="Redirect" url=")" + url + "\"/>"; }
std::string custom(const std::string& steps) { return "<custom>" + steps + "</custom>"; }
std::string param(const std::string& value) {
    return R"(<nvm><param name="PhoneUI.Language" value=")" + value + "\"/></nvm>";
}

class RedirectTest : public testing::Test {
 protected:
    RedirectTest() {
        auto& properties = *phone_.properties;
        properties.put("System.Provision.ProvisioningServer", here_.url("/"));
        for (const char* key : {"PhoneUI.Language", "State.FirmwareUpdate.Verify", "State.FirmwareUpdate.Filename",
                                "State.FirmwareUpdate.UpdateSystem"}) {
            properties.put(key, "");
        }
        properties.put("FirmwareManagment.AutomaticCheckForUpdates", "1");
        tests::writeFile("/config/bin/clean-up-utils.sh", "#!/bin/sh\n");
        std::filesystem::permissions("/config/bin/clean-up-utils.sh", std::filesystem::perms::owner_all);
        properties.forgetCalls();
    }

    static void serve(fakes::HttpServer& server, const std::string& inside) {
        server.on("/provisioning.xml", HttpAnswer::ok(provisioningFile("provisioning", "1.1", inside)));
    }
    /// Runs a pass on the configured server, waits for its last write and returns the result.
    std::string pass(zav::ProvisioningWorker& worker) {
        const std::size_t before = phone_.properties->writesTo("State.Provisioning").size();
        worker.startProvisioning("");
        EXPECT_TRUE(phone_.properties->waitForWrites([&](const auto& writes) {
            std::size_t results = 0;
            for (const auto& write : writes) results += write.key == "State.Provisioning" ? 1U : 0U;
            return results > before;
        }));
        const auto results = phone_.properties->writesTo("State.Provisioning");
        return results.empty() ? "" : results.back();
    }
    std::string pass() {
        zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
        return pass(worker);
    }
    std::vector<std::string> written(const std::string& key) const { return phone_.properties->writesTo(key); }

    tests::Phone phone_;
    fakes::HttpServer here_;
    fakes::HttpServer there_;
};

TEST_F(RedirectTest, RunsTheOtherServersFileInPlace) {
    serve(here_, param("before") + custom(redirect(there_.url("/"))) + param("after"));
    serve(there_, param("there"));
    EXPECT_EQ(pass(), "success");
    EXPECT_EQ(written("PhoneUI.Language"), (std::vector<std::string>{"before", "there", "after"}));
    EXPECT_EQ(written("State.Provisioning.LockUI"), (std::vector<std::string>{"1", "1", "0", "0"}));
    EXPECT_EQ(written("State.Provisioning"), std::vector<std::string>{"success"})
        << "the nested pass must not publish a result";
    EXPECT_EQ(written("State.Provisioning.HttpErrorCode"), std::vector<std::string>{"200"});
}

TEST_F(RedirectTest, NestedResultIsTheJobsResult) {
    serve(here_, param("good") + custom(redirect(there_.url("/"))));
    serve(there_, "<nvm><param name=\"PhoneUI.Language\" value=\"x\"/><param name=\"No.Such\" value=\"x\"/></nvm>");
    EXPECT_EQ(pass(), "partSuccess")
        << "the nested pass gives partSuccess, so the redirect fails, but the settings job succeeds";
    serve(here_, custom(redirect(there_.url("/"))));
    EXPECT_EQ(pass(), "fail");
    serve(there_, param("good"));
    EXPECT_EQ(pass(), "success");
}

TEST_F(RedirectTest, FailureOfTheOtherServerSetsTheHttpCode) {
    serve(here_, custom(redirect(there_.url("/"))) + param("after"));
    EXPECT_EQ(pass(), "partSuccess");
    EXPECT_EQ(written("State.Provisioning.HttpErrorCode"), std::vector<std::string>{"404"});
    EXPECT_EQ(written("PhoneUI.Language"), std::vector<std::string>{"after"});
}

TEST_F(RedirectTest, RestoresTheVersionAfterTheNestedPass) {
    here_.on("/provisioning.xml", HttpAnswer::ok(provisioningFile("provisioning", "1.0",
                                                                  R"(<category type="custom" url="/custom.xml"/>
                                                <category type="nvm" url="/nvm.xml"/>)")));
    here_.on("/custom.xml", HttpAnswer::ok(provisioningFile("custom", "1.0", R"(<file url="/scenario.xml"/>)")));
    here_.on("/scenario.xml", HttpAnswer::ok(provisioningFile("scenario", "1.0", redirect(there_.url("/")))));
    here_.on("/nvm.xml", HttpAnswer::ok(provisioningFile("nvm", "1.0", R"(<file url="/settings.xml"/>)")));
    here_.on("/settings.xml",
             HttpAnswer::ok(provisioningFile("settings", "1.0", R"(<param name="PhoneUI.Language" value="after"/>)")));
    serve(there_, param("there"));
    EXPECT_EQ(pass(), "success");
    EXPECT_EQ(written("PhoneUI.Language"), (std::vector<std::string>{"there", "after"}));
    EXPECT_EQ(zav::currentProvisioningVersion(), "1.0");
}

TEST_F(RedirectTest, RedirectToItselfEnds) {
    serve(here_, custom(redirect(here_.url("/"))));
    EXPECT_EQ(pass(), "fail");
    EXPECT_EQ(phone_.log.count(tooManyRedirects), 1U);
    EXPECT_EQ(here_.requestsFor("/provisioning.xml").size(), 4U);
    EXPECT_EQ(phone_.log.count(info(source, "Provisioning Finished")), 4U);
}

TEST_F(RedirectTest, MutualRedirectsEnd) {
    serve(here_, custom(redirect(there_.url("/"))));
    serve(there_, custom(redirect(here_.url("/"))));
    EXPECT_EQ(pass(), "fail");
    EXPECT_EQ(phone_.log.count(tooManyRedirects), 1U);
    EXPECT_EQ(here_.requests().size() + there_.requests().size(), 4U);
}

TEST_F(RedirectTest, EmptyUrlRedirectsToTheSameServer) {
    serve(here_, custom(redirect("")));
    EXPECT_EQ(pass(), "fail");
    EXPECT_EQ(phone_.log.count(tooManyRedirects), 1U);
}

TEST_F(RedirectTest, ManyRedirectsInOneFileEnd) {
    std::string steps;
    for (int i = 0; i < 40; ++i) steps += redirect(there_.url("/"));
    serve(here_, custom(steps));
    serve(there_, param("there"));
    EXPECT_EQ(pass(), "fail");
    EXPECT_EQ(there_.requests().size(), 16U);
    EXPECT_EQ(phone_.log.count(tooManyRedirects), 24U);
}

TEST_F(RedirectTest, ManyRedirectsToTheSameServerEnd) {
    std::string steps;
    for (int i = 0; i < 8; ++i) steps += redirect(here_.url("/"));
    serve(here_, custom(steps));
    EXPECT_EQ(pass(), "fail");
    EXPECT_LE(here_.requests().size(), 17U);
    EXPECT_GT(phone_.log.count(tooManyRedirects), 0U);
}

TEST_F(RedirectTest, RedirectLimitIsPerPass) {
    std::string steps;
    for (int i = 0; i < 16; ++i) steps += redirect(there_.url("/"));
    serve(here_, custom(steps));
    serve(there_, param("there"));
    zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
    EXPECT_EQ(pass(worker), "success");
    EXPECT_EQ(pass(worker), "success");
    EXPECT_EQ(phone_.log.count(tooManyRedirects), 0U);
}

TEST_F(RedirectTest, InvalidUrlFailsOnlyThisPass) {
    serve(here_, custom(redirect("no url at all")) + param("never"));
    zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
    EXPECT_EQ(pass(worker), "fail");
    EXPECT_TRUE(phone_.log.has(error(source, "Url is incorrect, please verify")));
    EXPECT_TRUE(written("PhoneUI.Language").empty());
    serve(here_, param("next"));
    EXPECT_EQ(pass(worker), "success");
    EXPECT_EQ(written("PhoneUI.Language"), std::vector<std::string>{"next"});
}

// The outer pass's HTTP client still reports progress after the nested worker is destroyed.
TEST_F(RedirectTest, FirmwareJobAfterARedirectTwice) {
    phone_.properties->put("System.General.SoftwareVersion", "1.0");
    serve(here_, custom(redirect(there_.url("/"))) + R"(<firmware><file version="2.0" url="/image.bin"/></firmware>)");
    here_.on("/image.bin", HttpAnswer::ok(std::string(3U << 20U, 'i')));
    serve(there_, param("there"));
    zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pass(worker), "success");
        EXPECT_EQ(std::filesystem::file_size("/config/swupdate/image.bin"), 3U << 20U);
    }
    EXPECT_EQ(written("State.FirmwareUpdate.UpdateSystem").size(), 2U);
}

TEST_F(RedirectTest, NestedProgressCountsAsProgress) {
    const auto gate = std::make_shared<fakes::Gate>();
    serve(here_, custom(redirect(there_.url("/"))));
    const std::string file = provisioningFile("provisioning", "1.1", param("there") + std::string(1U << 20U, ' '));
    there_.on("/provisioning.xml", HttpAnswer::ok(file).stallingAfter(file.size() / 2, gate));
    zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
    worker.startProvisioning("");
    ASSERT_TRUE(gate->waitUntilReached());
    const fakes::LogLine consumed = info("Core/ProvisioningWatchdog/ProgressReporter", "Progress consumed");
    worker.waitForProgress();
    EXPECT_FALSE(worker.isProvisioningFinished()) << "the nested pass still waits for its file";
    gate->open();
    EXPECT_TRUE(phone_.properties->waitForWrite("State.Provisioning", "success"));
    EXPECT_GE(phone_.log.count(consumed), 2U);
}

// A pass counts as finished shortly before its result is set; a redirect may read the result in between.
TEST_F(RedirectTest, ResultIsAvailableOnceThePassIsFinished) {
    serve(here_, param("here"));
    zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
    for (int i = 0; i < 30; ++i) {
        worker.startProvisioning(here_.url("/"));
        while (!worker.isProvisioningFinished()) std::this_thread::yield();
        EXPECT_EQ(worker.getProvisioningStatus(), "success");
    }
}

TEST_F(RedirectTest, StopLetsTheNestedPassFinish) {
    const auto gate = std::make_shared<fakes::Gate>();
    serve(here_, custom(redirect(there_.url("/"))));
    there_.on("/provisioning.xml",
              HttpAnswer::ok(provisioningFile("provisioning", "1.1", param("there"))).heldBy(gate));
    {
        zav::ProvisioningWorker worker(phone_.properties, phone_.curl, phone_.security);
        worker.startProvisioning("");
        ASSERT_TRUE(gate->waitUntilReached());
        worker.stop();
        worker.waitForProgress();  // returns at once during shutdown
        gate->open();
    }
    EXPECT_EQ(written("State.Provisioning"), std::vector<std::string>{"success"});
    EXPECT_EQ(written("State.Provisioning.LockUI"), (std::vector<std::string>{"1", "1", "0", "0"}));
}

}  // namespace
