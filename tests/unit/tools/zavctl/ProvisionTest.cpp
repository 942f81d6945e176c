#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Phone.h"

namespace zavctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const char state[] = "State.Provisioning";

class Provision : public testing::Test {
 protected:
    // A daemon that carries out a pass for each request, and ends it with this result.
    void answerWith(const std::string& result, const std::string& http) {
        phone.properties->onWrite([this, result, http](const fakes::PropertyWrite& write) {
            phone.publish(write);
            if (write.key != state || write.value != "request") return;
            phone.properties->set("State.Provisioning.LockUI", "", "1");
            phone.properties->set("State.Provisioning.LockUI", "", "0");
            phone.properties->set("State.Provisioning.HttpErrorCode", "", http);
            phone.properties->set(state, "", result);
        });
    }

    Phone phone{{{state, "success"},
                 {"State.Provisioning.LockUI", "0"},
                 {"State.Provisioning.HttpErrorCode", "404"},
                 {"System.Provision.ProvisioningServer", "https://server.example/"}}};
};

TEST_F(Provision, WritesTheRequestAndReturns) {
    EXPECT_EQ(phone.run({"provision"}), ExitCode::done);
    EXPECT_THAT(phone.properties->writes(), ElementsAre(fakes::PropertyWrite{state, "zavctl", "request"}));
    EXPECT_EQ(phone.out.str(), "Provisioning requested.\n");
    phone.out.str("");
    EXPECT_EQ(phone.run({"provision", "--json"}), ExitCode::done);
    EXPECT_EQ(phone.out.str(), "{\"requested\":true}\n");
}

TEST_F(Provision, WaitsForSuccess) {
    answerWith("success", "200");
    EXPECT_EQ(phone.run({"provision", "--wait"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), testing::MatchesRegex("success \\(HTTP 200, [0-9]+\\.[0-9] s\\)\n"));
    EXPECT_EQ(phone.err.str(), "");
}

TEST_F(Provision, PartSuccessIsDoneAndSaysSo) {
    answerWith("partSuccess", "200");
    EXPECT_EQ(phone.run({"provision", "--wait"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), HasSubstr("partSuccess: some of the jobs or settings were not carried out (HTTP 200"));
}

TEST_F(Provision, FailIsOne) {
    answerWith("fail", "404");
    EXPECT_EQ(phone.run({"provision", "--wait"}), ExitCode::failed);
    EXPECT_THAT(phone.out.str(), HasSubstr("fail (HTTP 404"));
    phone.out.str("");
    EXPECT_EQ(phone.run({"provision", "--wait", "--json"}), ExitCode::failed);
    EXPECT_EQ(phone.json()["result"], "fail");
    EXPECT_EQ(phone.json()["httpStatus"], 404);
    EXPECT_TRUE(phone.json()["milliseconds"].isInt());
}

TEST_F(Provision, AStaleResultDoesNotCount) {
    EXPECT_EQ(phone.run({"provision", "--wait", "--timeout", "0.05"}), ExitCode::timedOut);
    EXPECT_EQ(phone.out.str(), "");
    EXPECT_THAT(phone.err.str(), HasSubstr("no provisioning pass began within 0.1 s: zavd is not running, or has not"));
}

TEST_F(Provision, TimeOutNamesAMissingServer) {
    phone.properties->put("System.Provision.ProvisioningServer", "");
    EXPECT_EQ(phone.run({"provision", "--wait", "--timeout", "0.05", "--json"}), ExitCode::timedOut);
    EXPECT_EQ(phone.json()["error"], "timed-out");
    EXPECT_THAT(phone.json()["reason"].asString(), HasSubstr("no server is set; zavctl set System.Provision"));
}

TEST_F(Provision, TimeOutOfAPassThatGoesOnSaysSo) {
    phone.properties->onWrite([this](const fakes::PropertyWrite& write) {
        phone.publish(write);
        if (write.value == "request") phone.properties->set("State.Provisioning.LockUI", "", "1");
    });
    EXPECT_EQ(phone.run({"provision", "--wait", "--timeout", "0.05"}), ExitCode::timedOut);
    EXPECT_THAT(phone.err.str(), HasSubstr("has not ended within"));
}

TEST_F(Provision, AResultPublishedDuringACutIsReadBack) {
    phone.properties->onWrite([this](const fakes::PropertyWrite& write) {
        if (write.value != "request") return;
        phone.bus->cut();
        phone.properties->put(state, "partSuccess");
    });
    EXPECT_EQ(phone.run({"provision", "--wait"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), HasSubstr("partSuccess"));
}

TEST_F(Provision, ProgressIsShownOnATerminalOnly) {
    answerWith("success", "200");
    phone.terminal = true;
    EXPECT_EQ(phone.run({"provision", "--wait"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), HasSubstr("\r\x1b[K"));
    EXPECT_THAT(phone.out.str(), HasSubstr("Provisioning … 0 s"));
    phone.out.str("");
    EXPECT_EQ(phone.run({"provision", "--wait", "--json"}), ExitCode::done);
    EXPECT_THAT(phone.out.str(), Not(HasSubstr("\r")));
}

TEST_F(Provision, TheRequestIsRefused) {
    phone.properties->failKey(state);
    EXPECT_EQ(phone.run({"provision", "--wait"}), ExitCode::unreachable);
    EXPECT_THAT(phone.properties->writes(), IsEmpty());
}

}  // namespace
}  // namespace zavctl
