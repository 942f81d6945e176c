#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Phone.h"

namespace zavctl {
namespace {

using testing::HasSubstr;
using testing::Not;

const char initialFile[] = "/tmp/explained/provisioning.xml";
const char phoneFile[] = "/tmp/explained/phone.json";
const char catalogue[] = "/tmp/explained/catalogue.json";

void write(const char* path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

class ExplainCommand : public testing::Test {
 protected:
    ExplainCommand() {
        std::filesystem::create_directories("/tmp/explained");
        write(initialFile,
              "<provisioning version='1.1' productID='kd4v'><nvm><param name='Time.Format' value='12h'/></nvm>"
              "</provisioning>");
    }
    ~ExplainCommand() override { std::filesystem::remove_all("/tmp/explained"); }

    Phone phone{{{"NET.MAC.Address", "02:00:5E:10:00:01"}, {"Time.Format", "running"}, {"State.Provisioning", "fail"}}};
};

TEST_F(ExplainCommand, WithoutAPhoneTheCatalogueDecides) {
    EXPECT_EQ(phone.run({"explain", initialFile}), ExitCode::done) << phone.err.str();
    EXPECT_THAT(phone.out.str(), HasSubstr("\nset         Time.Format: \"24h\" -> \"12h\"\n"));
    EXPECT_THAT(phone.out.str(), HasSubstr("\nstatus    success (HTTP 200)\n"));
    EXPECT_TRUE(phone.bus->hosts.empty());  // no connection to a phone
}

TEST_F(ExplainCommand, BaseIsTheUrlOfAFolder) {
    for (const char* base : {"https://server.example/phones", "https://server.example/phones/"}) {
        phone.out.str("");
        EXPECT_EQ(phone.run({"explain", "/tmp/explained", "--base", base}), ExitCode::done) << phone.err.str();
        EXPECT_THAT(phone.out.str(), HasSubstr("/tmp/explained/ stands for https://server.example/phones/\n"));
        EXPECT_THAT(phone.out.str(), HasSubstr("https://server.example/phones/provisioning.xml (/tmp/explained/prov"));
    }
}

TEST_F(ExplainCommand, PhoneIsAFile) {
    for (const char* text : {R"({"version": 1, "properties": {"Time.Format": "12h", "Audio.Ringer.Volume": null}})",
                             R"({"Time.Format": "12h"})"}) {
        write(phoneFile, text);
        phone.out.str("");
        EXPECT_EQ(phone.run({"explain", "--as", phoneFile, initialFile}), ExitCode::done) << phone.err.str();
        EXPECT_THAT(phone.out.str(), HasSubstr("Time.Format: \"12h\" -> \"12h\"\n"));
    }
}

TEST_F(ExplainCommand, PhoneIsTheRunningOneAndIsOnlyRead) {
    phone.properties->put("Time.Format", "12h");
    EXPECT_EQ(phone.run({"explain", initialFile, "--as", "running"}), ExitCode::done) << phone.err.str();
    EXPECT_THAT(phone.out.str(), HasSubstr("Time.Format: \"12h\" -> \"12h\"\n"));
    EXPECT_THAT(phone.out.str(), Not(HasSubstr("NET.MAC.Address is taken")));
    EXPECT_TRUE(phone.properties->writes().empty());
    EXPECT_EQ(phone.bus->disconnects, 1);
}

TEST_F(ExplainCommand, CatalogueCanBeNamed) {
    write(catalogue,
          R"({"version": 1, "keys": {"Time.Format": {"type": "text", "default": "other", "description": "x"}}})");
    EXPECT_EQ(phone.run({"explain", initialFile, "--catalogue", catalogue}), ExitCode::failed);
    EXPECT_THAT(phone.out.str(), HasSubstr("error     Provisioning URL not set. Provisioning not started.\n"));
    EXPECT_THAT(phone.out.str(), HasSubstr("status    no pass\n"));
    phone.out.str("");
    EXPECT_EQ(phone.run({"explain", initialFile, "--catalogue", "/tmp/explained/missing"}), ExitCode::failed);
    EXPECT_EQ(phone.out.str(), "");
    EXPECT_THAT(phone.err.str(), HasSubstr("/tmp/explained/missing"));
}

TEST_F(ExplainCommand, PassThatFailsIsAFailure) {
    write(initialFile, "<phone/>");
    EXPECT_EQ(phone.run({"explain", initialFile}), ExitCode::failed);
    EXPECT_THAT(phone.out.str(), HasSubstr("its root element is 'phone'"));
    EXPECT_EQ(phone.err.str(), "");
}

TEST_F(ExplainCommand, PrintsJson) {
    EXPECT_EQ(phone.run({"explain", initialFile, "--json"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), HasSubstr(R"("status":"success")"));
    EXPECT_THAT(phone.out.str(), HasSubstr(R"("key":"Time.Format")"));
}

TEST_F(ExplainCommand, FilesThatCannotBeReadAreNamed) {
    EXPECT_EQ(phone.run({"explain", "/tmp/explained/missing"}), ExitCode::failed);
    EXPECT_EQ(phone.run({"explain", initialFile, "--key", "/tmp/explained/no.key"}), ExitCode::failed);
    EXPECT_EQ(phone.run({"explain", initialFile, "--as", "/tmp/explained/no.json"}), ExitCode::failed);
    EXPECT_EQ(phone.err.str(),
              "zavctl: /tmp/explained/missing: does not exist\n"
              "zavctl: /tmp/explained/no.key: cannot be read\n"
              "zavctl: /tmp/explained/no.json: cannot be opened: No such file or directory\n");
    write(phoneFile, "[]");
    EXPECT_EQ(phone.run({"explain", initialFile, "--as", phoneFile}), ExitCode::failed);
    write(phoneFile, R"({"Time.Format": 5})");
    EXPECT_EQ(phone.run({"explain", initialFile, "--as", phoneFile}), ExitCode::failed);
    EXPECT_THAT(phone.err.str(), HasSubstr("is not a JSON object of keys and values\n"));
    EXPECT_THAT(phone.err.str(), HasSubstr("Time.Format: its value must be a string"));
}

TEST_F(ExplainCommand, NeedsASource) { EXPECT_EQ(phone.run({"explain"}), ExitCode::usage); }

}  // namespace
}  // namespace zavctl
