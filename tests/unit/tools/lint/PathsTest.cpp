#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Lint.h"
#include "common/Execute.h"
#include "fakes/FewDescriptors.h"

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

TEST_F(LintPaths, ARedirectBelowTheBaseUrlIsAPassOfItsOwn) {
    given.baseUrl = "https://h/p/";
    const auto redirect = [](const std::string& url) {
        return provisioning(R"(<custom><step type="Redirect" url=")" + url + R"("/></custom>)");
    };
    const std::string first = write("provisioning.xml", redirect("https://h/p/site/"));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: missing-file"));
    write("site/provisioning.xml", initial("/nvm.xml"));  // of another version of the format
    write("nvm.xml", jobFile("/settings.xml"));
    write("settings.xml", "<settings" + attributes + "><param name=\"Nothing\" value=\"\"/></settings>");
    EXPECT_THAT(lint({first}), ElementsAre("settings.xml: unknown-key"));
    EXPECT_EQ(report.files, 4U);
    write("site/provisioning.xml", settingsFile);
    EXPECT_THAT(lint({first}), ElementsAre("site/provisioning.xml: initial-root"));
    write("site/provisioning.xml", redirect("https://h/p/provisioning.xml"));
    EXPECT_THAT(lint({first}), ElementsAre("site/provisioning.xml: include-loop"));
    write("provisioning.xml", redirect("https://h/p/site/first.xml"));
    write("site/first.xml", provisioning("<nvm>" + volume + "</nvm>"));
    EXPECT_THAT(lint({folder + "/provisioning.xml", folder + "/site/first.xml"}), IsEmpty());
}

TEST_F(LintPaths, AFileReachedInTwoWaysHasEachFindingOnce) {
    const std::string first = write("provisioning.xml", provisioning("<category type=\"nvm\" url=\"/nvm.xml\"/>"
                                                                     "<category type=\"custom\" url=\"/both.xml\"/>",
                                                                     "1.0"));
    write("nvm.xml", jobFile("/both.xml"));
    write("both.xml", "<nvm" + attributes + "><param name=\"Nothing\" value=\"\"/></nvm>");
    EXPECT_THAT(lint({first}), ElementsAre("both.xml: job-not-allowed", "both.xml: unknown-key"));
}

TEST_F(LintPaths, OneMissingFileIsReportedOnceForEachPlace) {
    const std::string first = write("provisioning.xml", initial("/nvm.xml"));
    write("nvm.xml", "<nvm" + attributes + "><file version=\"V001.000.000\" url=\"/none.xml\"/>\n" +
                         "<file version=\"V002.000.000\" url=\"/none.xml\"/></nvm>");
    EXPECT_THAT(lint({first}), ElementsAre("nvm.xml: missing-file", "nvm.xml: missing-file"));
}

TEST_F(LintPaths, CertificatesAndPhoneBooksHaveTheirOwnLimits) {
    const std::string first =
        write("provisioning.xml", provisioning("<custom><step type=\"certificate\" url=\"/ca.pem\"/>"
                                               "<step type=\"certificate\" url=\"/none.pem\"/></custom>"));
    write("ca.pem", std::string(1024UL * 1024, 'c'));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: missing-file"));
    write("ca.pem", std::string(1024UL * 1024 + 1, 'c'));
    EXPECT_THAT(lint({first}), ElementsAre("provisioning.xml: too-large", "provisioning.xml: missing-file"));
    EXPECT_EQ(report.findings[0].message, "\"" + folder + "/ca.pem\" has 1048577 bytes; the limit is 1048576");
}

TEST_F(LintPaths, ANameInAnotherCaseIsFineForAFileThatIsIncluded) {
    const std::string first = write("provisioning.xml", initial("/a/Provisioning.xml"));
    write("a/Provisioning.xml", jobFile("/settings.xml"));
    write("settings.xml", settingsFile);
    EXPECT_THAT(lint({folder}), IsEmpty());
    given.fetch = [&](const std::string&) { return Fetched{provisioning("<nvm>" + volume + "</nvm>"), ""}; };
    EXPECT_THAT(lint({"https://h/a/Provisioning.xml"}), IsEmpty());
}

TEST_F(LintPaths, OddPercentSignsNameNoFile) {
    write("dir/file", "");
    for (const std::string url : {"/a%2", "/a%", "/a%-1", "/a%:2", "/a%zz", "/dir"}) {
        const std::string first = write("provisioning.xml", initial(url));
        EXPECT_THAT(lint({first}), testing::Contains("provisioning.xml: missing-file")) << url;
    }
    EXPECT_THAT(lint({write("provisioning.xml", initial("/a%2eb"))}), ElementsAre("provisioning.xml: missing-file"));
    write("a.b", jobFile("/settings.xml"));
    write("settings.xml", settingsFile);
    EXPECT_THAT(lint({folder + "/provisioning.xml"}), IsEmpty());
}

TEST_F(LintPaths, EveryPlaceholderNeedsWhatItStandsFor) {
    write("02:00:5E:10:00:01.xml", jobFile("/settings.xml"));
    write("desk-7.xml", jobFile("/settings.xml"));
    write("settings.xml", settingsFile);
    for (const std::string url : {"/%MACC.xml", "/%DVID.xml"}) {
        given.phone.reset();
        const std::string first = write("provisioning.xml", initial(url));
        EXPECT_THAT(lint({first}), testing::Contains("provisioning.xml: not-followed")) << url;
        given.phone = Phone{"02:00:5E:10:00:01", {{"System.General.DeviceID", "desk-7"}}};
        EXPECT_THAT(lint({first}), IsEmpty()) << url;
    }
}

TEST_F(LintPaths, AFolderWithTheNameOfAFileIsLookedInto) {
    write("a.xml/provisioning.xml", provisioning("<nvm>" + volume + "</nvm>"));
    EXPECT_THAT(lint({folder}), IsEmpty());
    EXPECT_EQ(report.files, 1U);
}

TEST_F(LintPaths, AFolderOrFileThatCannotBeReadIsNamed) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors";
#endif
    const std::string first = write("provisioning.xml", provisioning("<nvm>" + volume + "</nvm>"));
    const auto error = [this](const std::string& path, rlim_t descriptors) {
        const fakes::FewDescriptors few(descriptors);
        try {
            lint({path});
        } catch (const LintException& thrown) {
            return std::string(thrown.what());
        }
        return std::string();
    };
    EXPECT_EQ(error(folder, 0), folder + ": cannot be read: Too many open files");
    EXPECT_EQ(error(first, 0), first + ": cannot be opened: Too many open files");
    EXPECT_EQ(error("/proc/self/mem", 10), "/proc/self/mem: cannot be read: Input/output error");
    // The key is read through one descriptor, and there is none left for the file that openssl reads.
    given.keyFile = write("key", "phrase\n");
    write("provisioning.xml", "Salted__" + std::string(24, 'x'));
    EXPECT_EQ(error(first, 1), "no file in memory can be made: Too many open files");
}

TEST_F(LintPaths, WhatIsEncryptedMayBeginWithAByteOrderMark) {
    given.keyFile = write("key", "phrase\n");
    const auto encrypted = [this](const std::string& text, const std::string& options) {
        const std::string plain = write("plain", text);
        os::execute("openssl enc " + options + " -in " + plain + " -out " + folder +
                        "/provisioning.xml -pass file:" + folder + "/key 2>/dev/null",
                    std::chrono::seconds(20));
        return folder + "/provisioning.xml";
    };
    const std::string text = provisioning("<nvm>" + volume + "</nvm>");
    std::string wide = "\xFF\xFE";
    for (const char c : text) wide += {c, '\0'};
    std::string otherWide = "\xFE\xFF";
    for (const char c : text) otherWide += {'\0', c};
    for (const std::string& plain : {"\xEF\xBB\xBF" + text, " \n" + text, wide, otherWide}) {
        EXPECT_THAT(lint({encrypted(plain, "-aes-128-cbc")}), IsEmpty());
    }
    EXPECT_THAT(lint({encrypted("not XML", "-aes-128-cbc")}), ElementsAre("provisioning.xml: wrong-key"));
    EXPECT_THAT(lint({encrypted(" ", "-aes-128-cbc")}), ElementsAre("provisioning.xml: wrong-key"));
    EXPECT_THAT(lint({encrypted("not XML", "-aes-256-cbc")}), ElementsAre("provisioning.xml: wrong-key"));
    given.baseUrl = "http://h/";  // what is encrypted may hold secrets
    const std::string secret = provisioning(R"(<nvm><param name="System.Web.AdminPassword" value="secret"/></nvm>)");
    EXPECT_THAT(lint({encrypted(secret, "-aes-128-cbc")}), IsEmpty());
}

TEST_F(LintPaths, ADescriptionThatIsNotUnderstoodAllowsAnyValue) {
    auto settings = std::make_shared<Settings>();
    Json::Value description;
    settings->add(description);
    description["param"] = "A.B";
    settings->add(description);
    EXPECT_EQ(settings->size(), 0U);
    description["type"] = "colour";  // of a newer service
    description["depth"] = 24;
    description["refusedSources"].append(7);
    settings->add(description);
    ASSERT_NE(settings->find("A.B"), nullptr);
    EXPECT_EQ(settings->find("A.B")->rule("any"), "");
    EXPECT_FALSE(settings->find("A.B")->refuses("7"));
    description["param"] = 7;
    settings->add(description);
    settings->add("text");
    EXPECT_EQ(settings->size(), 1U);
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
