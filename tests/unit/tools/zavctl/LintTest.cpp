// The command `lint`: what it downloads, whom it asks, and what it prints. The mistakes are tested in
// tests/unit/tools/lint.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Phone.h"
#include "common/TemporaryFolder.h"
#include "fakes/FewDescriptors.h"
#include "fakes/HttpServer.h"

namespace zavctl {
namespace {

namespace fs = std::filesystem;

using fakes::HttpAnswer;
using testing::ElementsAre;
using testing::HasSubstr;

const char serverKey[] = "System.Provision.ProvisioningServer";
const std::string attributes = " version=\"1.0\" productID=\"kd4v\"";

std::string provisioning(const std::string& inside) {
    return "<provisioning" + attributes + ">" + inside + "</provisioning>";
}
std::string jobFile(const std::string& url) { return "<nvm" + attributes + "><file url=\"" + url + "\"/></nvm>"; }
std::string settings(const std::string& volume) {
    return "<settings" + attributes + "><param name=\"Audio.Ringer.Volume\" value=\"" + volume + "\"/></settings>";
}

class LintCommand : public testing::Test {
 protected:
    LintCommand() {
        server.on("/p/provisioning.xml", HttpAnswer::ok(provisioning("<category type=\"nvm\" url=\"/nvm.xml\"/>")));
        server.on("/p/nvm.xml", HttpAnswer::ok(jobFile("/settings.xml")));
        server.on("/p/settings.xml", HttpAnswer::ok(settings("99")));
    }

    ExitCode run(std::vector<std::string> words) {
        phone.out.str("");
        phone.err.str("");
        words.insert(words.begin(), "lint");
        return phone.run(words);
    }
    /// "RULE in FILE" of the findings of `lint --json`; the status is that of `code`.
    std::vector<std::string> findings(std::vector<std::string> words, ExitCode code) {
        words.emplace_back("--json");
        EXPECT_EQ(run(words), code) << phone.err.str();
        std::vector<std::string> all;
        const Json::Value answer = phone.json();
        for (const Json::Value& one : answer["findings"]) {
            all.push_back(one["rule"].asString() + " in " + one["file"].asString());
        }
        return all;
    }
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(folder.path() + "/" + name) << text;
        return folder.path() + "/" + name;
    }

    Phone phone{{{"NET.MAC.Address", "02:00:5E:10:00:01"},
                 {"System.Provision.FactoryAuthUsername", ""},
                 {"System.Provision.FactoryAuthPassword", ""},
                 {serverKey, ""}}};
    fakes::HttpServer server;
    const common::TemporaryFolder folder{"lint-test"};
};

TEST_F(LintCommand, DownloadsAWholePass) {
    EXPECT_THAT(findings({server.url("/p/provisioning.xml")}, ExitCode::failed),
                ElementsAre("bad-value in " + server.url("/p/settings.xml")));
    EXPECT_EQ(phone.json()["files"], 3);
    EXPECT_EQ(phone.json()["errors"], 1);
    EXPECT_TRUE(phone.bus->hosts.empty()) << "no phone is asked";
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        EXPECT_EQ(entry.path().string().find("zavctl-lint"), std::string::npos) << entry.path();
    }
}

TEST_F(LintCommand, TheSchemeMayBeInCapitals) {
    server.on("/p/settings.xml", HttpAnswer::ok(settings("4")));
    const std::string url = "HTTP" + server.url("/p/provisioning.xml").substr(4);
    EXPECT_EQ(run({url}), ExitCode::done) << phone.err.str();
    EXPECT_EQ(phone.out.str(), "nothing found in 3 files\n");
}

TEST_F(LintCommand, AFileThatCannotBeDownloadedIsNamed) {
    server.on("/p/settings.xml", HttpAnswer::error(404));
    EXPECT_THAT(findings({server.url("/p/provisioning.xml")}, ExitCode::failed),
                ElementsAre("missing-file in " + server.url("/p/nvm.xml")));
    EXPECT_THAT(phone.json()["findings"][0]["message"].asString(),
                HasSubstr("/p/settings.xml\" cannot be downloaded: HTTP 404 Not Found"));
    EXPECT_EQ(phone.json()["files"], 2);
    EXPECT_EQ(run({server.url("/p/none.xml")}), ExitCode::usage);
    EXPECT_THAT(phone.err.str(), HasSubstr("/p/none.xml: cannot be downloaded: HTTP 404 Not Found"));
    EXPECT_EQ(run({"http://127.0.0.1:1/p/"}), ExitCode::usage);
    EXPECT_THAT(phone.err.str(), HasSubstr("/p/provisioning.xml: cannot be downloaded: "));
}

TEST_F(LintCommand, OfflineNothingIsDownloaded) {
    EXPECT_EQ(run({"--offline", server.url("/p/provisioning.xml")}), ExitCode::usage);
    EXPECT_THAT(phone.err.str(), HasSubstr("/p/provisioning.xml: nothing is downloaded"));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(LintCommand, OfAPublishedFolderTheMissingFilesAreDownloaded) {
    const std::string initial =
        write("provisioning.xml", provisioning("<category type=\"nvm\" url=\"" + server.url("/p/nvm.xml") + "\"/>"));
    EXPECT_THAT(findings({initial, "--base", server.url("/p")}, ExitCode::failed),
                testing::Contains("missing-file in " + server.url("/p/nvm.xml")));
    EXPECT_THAT(findings({initial, "--base", server.url("/p/provisioning.xml"), "--offline"}, ExitCode::failed),
                ElementsAre("missing-file in " + initial));
    EXPECT_EQ(server.requestsFor("/p/nvm.xml").size(), 1U);
}

TEST_F(LintCommand, ThePhonesKeysAndServerCount) {
    phone.bus->descriptions = R"({"definitions":[{"param":"Audio.Ringer.Volume","type":"integer","min":0,"max":99}]})";
    phone.properties->put(serverKey, server.url("/p/"));
    EXPECT_EQ(run({server.url("/p/provisioning.xml"), "--as", "running"}), ExitCode::done) << phone.out.str();
    const std::string initial = write("provisioning.xml", provisioning("<category type=\"nvm\" url=\"/none.xml\"/>"));
    EXPECT_THAT(findings({initial, "--as", "running", "--base", "https://server.example/"}, ExitCode::failed),
                ElementsAre("missing-file in " + initial));
    phone.bus->away = true;
    EXPECT_EQ(run({initial, "--as", "running"}), ExitCode::unreachable);
}

TEST_F(LintCommand, ACatalogueCanBeNamed) {
    const std::string catalogue = write(
        "catalogue.json", R"({"version": 1, "keys": {"A.B": {"type": "text", "default": "", "description": "d"}}})");
    const std::string file = write("settings.xml", settings("4"));
    EXPECT_EQ(run({file}), ExitCode::done) << phone.out.str();
    EXPECT_THAT(findings({file, "--catalogue", catalogue}, ExitCode::failed), ElementsAre("unknown-key in " + file));
    EXPECT_EQ(run({file, "--catalogue", write("broken.json", "{")}), ExitCode::usage);
    EXPECT_THAT(phone.err.str(), HasSubstr("broken.json"));
}

TEST_F(LintCommand, WithoutAKeyEncryptedFilesAreAFinding) {
    fs::remove("/etc/zav.d/key");
    const std::string file = write("provisioning.xml", "Salted__" + std::string(24, 'x'));
    const auto without = findings({file}, ExitCode::done);
    EXPECT_THAT(without, ElementsAre("no-key in " + file));
    EXPECT_FALSE(phone.json()["findings"][0].isMember("line"));
    EXPECT_EQ(findings({file, "--key", folder.path() + "/none"}, ExitCode::done), without);
    EXPECT_THAT(phone.json()["findings"][0]["message"].asString(), HasSubstr("/none: No such file or directory"));
    EXPECT_EQ(findings({file, "--key", write("key", "phrase\n")}, ExitCode::failed).at(0), "wrong-key in " + file);
}

TEST_F(LintCommand, RulesAreListedAsTextAndAsJson) {
    EXPECT_EQ(run({"--rules"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), HasSubstr("\nunknown-key (error): "));
    EXPECT_THAT(phone.out.str(), HasSubstr("\n  fix: "));
    EXPECT_EQ(run({"--rules", "--json"}), ExitCode::done);
    EXPECT_GT(phone.json()["rules"].size(), 50U);
    EXPECT_EQ(run({}), ExitCode::usage);
}

TEST_F(LintCommand, WithoutATemporaryFolderNothingIsDownloaded) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors";
#endif
    const fakes::FewDescriptors none(0);  // the folder's watcher needs a pipe
    EXPECT_EQ(run({server.url("/p/provisioning.xml"), "--as", "running"}), ExitCode::failed);
    EXPECT_EQ(phone.err.str(), "zavctl: no folder can be made in /tmp\n");
    EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace zavctl
