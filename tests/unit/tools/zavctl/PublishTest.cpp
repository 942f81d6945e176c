#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "Phone.h"

namespace zavctl {
namespace {

using testing::HasSubstr;

std::string document(const std::string& volume) {
    return "<provisioning version=\"1.1\" productID=\"kd4v\">\n<nvm><param name=\"Audio.Ringer.Volume\" value=\"" +
           volume + "\"/></nvm>\n</provisioning>\n";
}

class Publish : public testing::Test {
 protected:
    Publish() {
        std::string pattern = "/tmp/publish-XXXXXX";
        folder = std::string(::mkdtemp(pattern.data())) + "/";
        std::filesystem::create_directory(folder + "in");
        write("key", "correct horse\n");
        write("in/provisioning.xml", document("3"));
        write("in/a.img", "image");
        write("t.csv", "mac,volume\n02:00:5E:10:00:01,1\n02:00:5E:10:00:02,2\n");
        write("t.xml", document("{volume}"));
    }
    ~Publish() override { std::filesystem::remove_all(folder); }

    void write(const std::string& name, const std::string& bytes) const { std::ofstream(folder + name) << bytes; }

    ExitCode run(std::vector<std::string> words) {
        phone.out.str("");
        phone.err.str("");
        words.insert(words.end(), {"--key", folder + "key"});
        return phone.run(words);
    }
    ExitCode pack(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"pack", folder + "in", "--to", folder + "out"});
        return run(more);
    }
    ExitCode fleet(std::vector<std::string> more = {}) {
        more.insert(more.begin(),
                    {"fleet", folder + "t.csv", folder + "t.xml", folder + "out", "--name", "{MACD}.xml"});
        return run(more);
    }

    Phone phone{{}};
    std::string folder;
};

TEST_F(Publish, PackPrintsWhatItWritesAndNeedsNoPhone) {
    phone.bus->away = true;
    EXPECT_EQ(pack({"--dry-run"}), ExitCode::done);
    EXPECT_EQ(phone.out.str(),
              "encrypted  provisioning.xml\ncopied     a.img\n2 files would be written, 0 unchanged.\n");
    EXPECT_EQ(pack(), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "encrypted  provisioning.xml\ncopied     a.img\n2 files written, 0 unchanged.\n");
    std::filesystem::remove(folder + "in/a.img");
    EXPECT_EQ(pack(), ExitCode::done);
    EXPECT_EQ(phone.out.str(),
              "vanished   a.img\n0 files written, 1 unchanged, 1 no longer in the folder (--delete removes).\n");
    EXPECT_EQ(pack({"--delete"}), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "removed    a.img\n0 files written, 1 unchanged, 1 removed.\n");
    EXPECT_EQ(phone.err.str(), "");
    EXPECT_TRUE(phone.bus->hosts.empty());
}

TEST_F(Publish, PackPrintsJson) {
    EXPECT_EQ(pack({"--json"}), ExitCode::done);
    const Json::Value result = phone.json();
    EXPECT_EQ(result["written"], true);
    EXPECT_EQ(result["encrypted"][0], "provisioning.xml");
    EXPECT_EQ(result["copied"][0], "a.img");
    EXPECT_EQ(result["unchanged"], 0);
}

TEST_F(Publish, FilesThatKeepAllFromBeingPublishedAreListed) {
    write("in/b.xml", "");
    write("in/c.xml", "<Nvm/>");
    EXPECT_EQ(pack(), ExitCode::failed);
    EXPECT_EQ(phone.out.str(), "");
    EXPECT_EQ(phone.err.str(),
              "b.xml: error: the file is empty\n"
              "c.xml: error: its root element is \"Nvm\"; the phone wants \"nvm\"\n"
              "zavctl: nothing was written: 2 errors; --force writes all the same\n");
    EXPECT_EQ(pack({"--json"}), ExitCode::failed);
    EXPECT_EQ(phone.json()["written"], false);
    EXPECT_EQ(phone.json()["findings"].size(), 2U);
    EXPECT_EQ(phone.err.str(), "");
    EXPECT_EQ(pack({"--force"}), ExitCode::done);
}

TEST_F(Publish, ErrorsThatLintFindsKeepAllFromBeingPublished) {
    write("in/provisioning.xml", document("99"));
    EXPECT_EQ(pack(), ExitCode::failed);
    EXPECT_THAT(phone.err.str(), testing::MatchesRegex("provisioning.xml:2:[0-9]+: error: Audio.Ringer.Volume.* "
                                                       "\\[[a-z-]+\\]\nzavctl: nothing was written: 1 error; .*\n"));
    EXPECT_EQ(pack({"--json"}), ExitCode::failed);
    const Json::Value finding = phone.json()["findings"][0];
    EXPECT_EQ(finding["line"], 2);
    EXPECT_GT(finding["column"].asInt(), 1);
    EXPECT_EQ(finding["level"], "error");
    EXPECT_FALSE(finding["rule"].asString().empty());
    EXPECT_FALSE(std::filesystem::exists(folder + "out"));
    EXPECT_EQ(pack({"--force"}), ExitCode::done);
    write("t.csv", "mac,volume\n02:00:5E:10:00:01,1\n02:00:5E:10:00:02,99\n");
    EXPECT_EQ(fleet(), ExitCode::failed);
    EXPECT_THAT(phone.err.str(),
                testing::MatchesRegex(
                    "zavctl: row 3: 02-00-5E-10-00-02.xml:2:[0-9]+: error: Audio.Ringer.Volume.* \\[[a-z-]+\\]\n"));
    EXPECT_EQ(phone.out.str(), "1 of 2 rows: 1 file written, 0 unchanged.\n");
}

TEST_F(Publish, ACatalogueThatCannotBeReadIsAnError) {
    EXPECT_EQ(pack({"--catalogue", folder + "none.json"}), ExitCode::failed);
    EXPECT_THAT(phone.err.str(), HasSubstr("none.json"));
    EXPECT_FALSE(std::filesystem::exists(folder + "out"));
}

TEST_F(Publish, ErrorsOfTheWholeCommandNameThePath) {
    EXPECT_EQ(run({"pack", folder + "none", "--to", folder + "out"}), ExitCode::failed);
    EXPECT_THAT(phone.err.str(), HasSubstr("zavctl: " + folder + "none: cannot be opened: No such file"));
    write("key", "\n");
    EXPECT_EQ(pack({"--json"}), ExitCode::failed);
    EXPECT_EQ(phone.json()["error"], "failed");
    EXPECT_THAT(phone.json()["reason"].asString(), HasSubstr("key: the first line is empty"));
}

TEST_F(Publish, WarningsAndNotesKeepNothingBack) {
    const std::string lower = "<param name=\"Telephony.Accounts.0.DisplayName\" value=\"a \"/>";
    write("in/provisioning.xml",
          "<provisioning version=\"1.1\" productID=\"kd4v\">\n<nvm>" + lower + "</nvm></provisioning>\n");
    EXPECT_EQ(pack({"--json"}), ExitCode::done);
    const Json::Value result = phone.json();
    EXPECT_EQ(result["findings"][0]["level"], "warning");
    EXPECT_EQ(result["written"], true);
    EXPECT_EQ(pack({"--json", "--dry-run"}), ExitCode::done);
    EXPECT_EQ(phone.json()["written"], false);
}

TEST_F(Publish, WhatForceCannotPublishIsNotOfferedByForce) {
    std::filesystem::create_symlink("/etc/passwd", folder + "in/x");
    write("in/b.xml", "");
    EXPECT_EQ(pack(), ExitCode::failed);
    EXPECT_THAT(phone.err.str(), testing::EndsWith("zavctl: nothing was written: 2 errors\n"));
    EXPECT_EQ(pack({"--force"}), ExitCode::failed);
    EXPECT_FALSE(std::filesystem::exists(folder + "out"));
}

TEST_F(Publish, ADryRunSaysWhatWouldBeRemovedAndWritten) {
    EXPECT_EQ(pack(), ExitCode::done);
    std::filesystem::remove(folder + "in/a.img");
    EXPECT_EQ(pack({"--delete", "--dry-run"}), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "removed    a.img\n0 files would be written, 1 unchanged, 1 would be removed.\n");
    EXPECT_TRUE(std::filesystem::exists(folder + "out/a.img"));
    std::filesystem::remove_all(folder + "out");
    EXPECT_EQ(fleet({"--dry-run"}), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "2 of 2 rows: 2 files would be written, 0 unchanged.\n");
    EXPECT_EQ(fleet({"--dry-run", "--json"}), ExitCode::done);
    EXPECT_EQ(phone.json()["written"], 0);
    EXPECT_EQ(phone.json()["changed"], 2);
    EXPECT_FALSE(std::filesystem::exists(folder + "out"));
}

TEST_F(Publish, ErrorsOfAFleetAsAWholeAndItsWarnings) {
    write("t.csv", "mac,volume\n02:00:5e:10:00:0a,1\n");
    EXPECT_EQ(fleet(), ExitCode::done);
    EXPECT_THAT(phone.err.str(), HasSubstr("zavctl: warning: " + folder + "t.csv: MAC addresses in lower case"));
    write("t.csv", "mac,volume\n");
    EXPECT_EQ(fleet(), ExitCode::failed);
    EXPECT_EQ(phone.err.str(), "zavctl: " + folder + "t.csv: the table has no rows below the names of the columns\n");
    write("t.csv", "mac,volume\nx,1\n");
    EXPECT_EQ(fleet({"--errors", folder + "none/errors"}), ExitCode::failed);
    EXPECT_EQ(phone.err.str(),
              "zavctl: " + folder + "none/errors: the rows that failed cannot be written: No such file or directory\n");
}

TEST_F(Publish, UnpackIsTheWayBack) {
    EXPECT_EQ(pack(), ExitCode::done);
    EXPECT_EQ(run({"unpack", folder + "out", "--to", folder + "back"}), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "decrypted  provisioning.xml\ncopied     a.img\n2 files written, 0 unchanged.\n");
}

TEST_F(Publish, AWarningAboutTheKeyGoesToStandardError) {
    write("key", "correct horse\r\n");
    EXPECT_EQ(pack(), ExitCode::done);
    EXPECT_THAT(phone.err.str(), HasSubstr("key: the first line ends with a carriage return"));
}

TEST_F(Publish, FleetPrintsTheNumbers) {
    EXPECT_EQ(fleet(), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "2 of 2 rows: 2 files written, 0 unchanged.\n");
    EXPECT_EQ(fleet({"--json"}), ExitCode::done);
    EXPECT_EQ(phone.json()["rows"], 2);
    EXPECT_EQ(phone.json()["unchanged"], 2);
    EXPECT_EQ(phone.json()["failed"].size(), 0U);
}

TEST_F(Publish, FleetShowsTwentyFailedRowsAndWritesAllToAFile) {
    std::string table = "mac,volume,note\n02:00:5E:10:00:01,3,\"two\nlines\"\n";
    for (int row = 0; row < 25; ++row) table += "x,4,\n";
    write("t.csv", table);
    EXPECT_EQ(fleet(), ExitCode::failed);
    EXPECT_EQ(phone.out.str(), "1 of 26 rows: 1 file written, 0 unchanged.\n");
    const std::string text = phone.err.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 21);
    EXPECT_THAT(text, HasSubstr("zavctl: row 3 (line 4): mac is not the MAC address of a device: x\n"));
    EXPECT_THAT(text, HasSubstr("zavctl: and 5 more rows; --errors FILE lists all\n"));
    EXPECT_EQ(fleet({"--errors", folder + "errors"}), ExitCode::failed);
    std::ifstream file(folder + "errors");
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 25);
    EXPECT_EQ(fleet({"--json"}), ExitCode::failed);
    EXPECT_EQ(phone.json()["failed"].size(), 25U);
    EXPECT_EQ(phone.json()["failed"][0]["line"], 4);
}

TEST_F(Publish, ProgressIsShownOnATerminalOnly) {
    EXPECT_EQ(fleet(), ExitCode::done);
    EXPECT_EQ(phone.err.str(), "");
    phone.errTerminal = true;
    EXPECT_EQ(fleet(), ExitCode::done);
    EXPECT_THAT(phone.err.str(), HasSubstr("2/2 rows"));
    EXPECT_THAT(phone.err.str(), testing::EndsWith("\r\x1b[K"));
}

}  // namespace
}  // namespace zavctl
