#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Lint.h"

namespace lint {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string volume = R"(<param name="Audio.Ringer.Volume" value="4"/>)";
const std::string attributes = " version=\"1.0\" productID=\"kd4v\"";
const std::string settingsFile = "<settings" + attributes + ">" + volume + "</settings>";

std::string jobFile(const std::string& url) { return "<nvm" + attributes + "><file url=\"" + url + "\"/></nvm>"; }
std::string initial(const std::string& url) {
    return provisioning("<category type=\"nvm\" url=\"" + url + "\"/>", "1.0");
}

class LintPaths : public testing::Test {
 protected:
    LintPaths() {
        std::string name = "/tmp/lint-test-XXXXXX";
        folder = ::mkdtemp(name.data());
    }
    ~LintPaths() override { fs::remove_all(folder); }

    std::string write(const std::string& name, const std::string& text) {
        const fs::path path = fs::path(folder) / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
        return path.string();
    }

    /// "FILE: RULE" for each finding.
    std::vector<std::string> lint(const std::vector<std::string>& paths) {
        report = lintPaths(paths, given);
        std::vector<std::string> all;
        for (const Finding& finding : report.findings) {
            const bool isLocal = finding.file.rfind(folder, 0) == 0;
            all.push_back((isLocal ? finding.file.substr(folder.size() + 1) : finding.file) + ": " + finding.rule);
        }
        return all;
    }

    std::string folder;
    Options given = options();
    Report report;
};

TEST_F(LintPaths, FollowsTheFilesOfAPass) {
    const std::string first = write("provisioning.xml", initial("/jobs/nvm.xml"));
    write("jobs/nvm.xml", jobFile("/set%20tings.xml"));
    write("set tings.xml", settingsFile);
    EXPECT_THAT(lint({first}), IsEmpty());
    EXPECT_EQ(report.files, 3U);
    write("set tings.xml", "<settings" + attributes + "><param name=\"Nothing\" value=\"\"/></settings>");
    EXPECT_THAT(lint({first}), ElementsAre("set tings.xml: unknown-key"));
}

// Its root alone would make it an initial file, in which settings are not jobs.
TEST_F(LintPaths, AnIncludedFileMayHaveTheRootOfAnInitialOne) {
    const std::string settings = "<nvm>" + volume + "</nvm>";
    write("a.xml", provisioning(settings, "1.0"));
    EXPECT_THAT(lint({folder}), testing::Contains("a.xml: job-not-allowed"));
    write("provisioning.xml", initial("/nvm.xml"));
    write("nvm.xml", jobFile("/a.xml"));
    EXPECT_THAT(lint({folder}), IsEmpty());
}

TEST_F(LintPaths, EachPhonesFolderIsAServerOfItsOwn) {
    write("02-00-5E-10-00-01/provisioning.xml", initial("/nvm.xml"));
    write("02-00-5E-10-00-01/nvm.xml", jobFile("/settings.xml"));
    write("02-00-5E-10-00-01/settings.xml", settingsFile);
    write("02-00-5E-10-00-02/provisioning.xml", initial("/nvm.xml"));
    EXPECT_THAT(lint({folder}), ElementsAre("02-00-5E-10-00-02/provisioning.xml: missing-file"));
}

TEST_F(LintPaths, PathsBelowTheBaseUrlAreLocal) {
    given.baseUrl = "https://server.example/phones/";
    const std::string first = write("provisioning.xml", initial("https://server.example/phones/nvm.xml"));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: missing-file"));
    write("nvm.xml", jobFile("https://server.example/else/settings.xml"));
    EXPECT_THAT(lint({first}), ElementsAre("nvm.xml: not-followed"));
}

TEST_F(LintPaths, PlaceholdersNeedAPhone) {
    const std::string first = write("provisioning.xml", initial("/%MACD.xml"));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: not-followed"));
    given.phone = Phone{"02:00:5E:10:00:01", {}};
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: missing-file"));
    write("02-00-5E-10-00-01.xml", jobFile("/settings.xml"));
    write("settings.xml", settingsFile);
    EXPECT_THAT(lint({first}), IsEmpty());
}

TEST_F(LintPaths, UrlsAreFetchedBelowTheFirstOnly) {
    std::vector<std::string> fetched;
    given.fetch = [&](const std::string& url) -> Fetched {
        fetched.push_back(url);
        if (url == "http://h/a/provisioning.xml") return {initial("/nvm.xml"), ""};
        if (url == "http://h/a/nvm.xml") return {jobFile("http://h/b/settings.xml"), ""};
        return {std::nullopt, "cannot be downloaded"};
    };
    EXPECT_THAT(lint({"http://h/a/provisioning.xml"}), ElementsAre("http://h/a/nvm.xml: not-followed"));
    EXPECT_THAT(fetched, ElementsAre("http://h/a/provisioning.xml", "http://h/a/nvm.xml"));
    EXPECT_THROW(lint({"http://h/a/other.xml"}), LintException);
}

TEST_F(LintPaths, ServersUrlStandsForTheFileThatAPhoneAsksFor) {
    std::vector<std::string> fetched;
    given.fetch = [&](const std::string& url) -> Fetched {
        fetched.push_back(url);
        return {settingsFile, ""};
    };
    EXPECT_THAT(lint({"http://h/a/", "http://h", "https://user:password@h/a/"}),
                ElementsAre("http://h/a/provisioning.xml: initial-root", "http://h/provisioning.xml: initial-root",
                            "https://h/a/provisioning.xml: initial-root"));
    given.phone = Phone{"02:00:5E:10:00:01", {}};
    EXPECT_THAT(lint({"http://h/%MACD/"}), ElementsAre("http://h/02-00-5E-10-00-01/provisioning.xml: initial-root"));
    given.phone.reset();
    EXPECT_THROW(lint({"http://h/%MACD/"}), LintException);
    EXPECT_THROW(lint({"http://"}), LintException);
}

TEST_F(LintPaths, InitialFileInAnotherCaseIsNeverAskedFor) {
    write("Provisioning.XML", provisioning("<nvm>" + volume + "</nvm>"));
    EXPECT_THAT(lint({folder}), ElementsAre("Provisioning.XML: initial-file-name"));
    write("provisioning.xml", provisioning("<nvm>" + volume + "</nvm>"));
    EXPECT_THAT(lint({folder}), IsEmpty());
}

TEST_F(LintPaths, KeyFileHasALimit) {
    const std::string first = write("provisioning.xml", "Salted__12345678");
    given.keyFile = "/dev/zero";
    EXPECT_THROW(lint({first}), LintException);
    given.keyFile = write("key", std::string(65536, 'k'));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: wrong-key"));
}

TEST_F(LintPaths, NothingIsFetchedWithoutPermission) {
    EXPECT_THROW(lint({"http://h/a/provisioning.xml"}), LintException);
}

TEST_F(LintPaths, SecretsMayTravelEncryptedByTheTransport) {
    const std::string first = write(
        "provisioning.xml", provisioning(R"(<nvm><param name="System.Web.AdminPassword" value="secret"/></nvm>)"));
    for (const auto& [base, count] : {std::pair("", 0U), {"https://h/", 0U}, {"http://h/", 1U}}) {
        given.baseUrl = base;
        EXPECT_EQ(lint({first}).size(), count) << base;
    }
}

TEST_F(LintPaths, AFileThatIsReachedIsLintedOnce) {
    write("provisioning.xml", initial("/nvm.xml"));
    write("nvm.xml", jobFile("/settings.xml"));
    write("settings.xml", "<settings" + attributes + "><param name=\"Nothing\" value=\"\"/></settings>");
    EXPECT_THAT(lint({folder}), ElementsAre("settings.xml: unknown-key"));
    EXPECT_THAT(lint({folder, folder + "/settings.xml"}), ElementsAre("settings.xml: unknown-key"));
}

TEST_F(LintPaths, ReferencesDoNotLeaveTheFolder) {
    write("outside.xml", settingsFile);
    const std::string first = write("inside/provisioning.xml", initial("/%2e./outside.xml"));
    EXPECT_THAT(lint({first}), ElementsAre("inside/provisioning.xml: invalid-url"));
    write("inside/a/b.txt", "");
    write("inside/provisioning.xml", initial("/a%2f..%2f../outside.xml"));
    EXPECT_THAT(lint({first}), ElementsAre("inside/provisioning.xml: missing-file"));
}

TEST_F(LintPaths, PathsThatCannotBeReadAreRefused) {
    EXPECT_THROW(lint({folder + "/nothing.xml"}), LintException);
    EXPECT_THROW(lint({folder}), LintException) << "no .xml file in it";
}

TEST_F(LintPaths, ManyFilesKeepTheirOrder) {
    std::vector<std::string> expected;
    for (int i = 100; i < 160; ++i) {
        write(std::to_string(i) + ".xml", provisioning("<nvm><param name=\"Nothing\" value=\"\"/></nvm>"));
        expected.push_back(std::to_string(i) + ".xml: unknown-key");
    }
    EXPECT_EQ(lint({folder}), expected);
}

TEST_F(LintPaths, ADescribedKeyIsCheckedLikeACatalogues) {
    Json::Value description;
    description["param"] = "Door.Opener.Seconds";
    description["type"] = "integer";
    description["min"] = 1;
    description["max"] = 9;
    description["default"] = "3";
    auto settings = std::make_shared<Settings>();
    settings->add(description);
    given.settings = settings;
    const std::string first =
        write("provisioning.xml", provisioning(R"(<nvm><param name="Door.Opener.Seconds" value="10"/></nvm>)"));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: bad-value"));
}

}  // namespace
}  // namespace lint
