#include "explain/Report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace explain {
namespace {

using Kind = Event::Kind;

Explanation example() {
    Explanation explanation;
    explanation.url = "http://server.example/provisioning.xml";
    explanation.notes = {"a note"};
    explanation.events = {{Kind::file, 0, "http://server.example/provisioning.xml", "", "file.xml", "200 OK"},
                          {Kind::dropped, 0, "nvm/file", "", "", "not a job"},
                          {Kind::started, 0, "nvm/param", "", "NVMJobHandler", ""},
                          {Kind::written, 1, "Time.Format", "24h", "12h", "provisioning"},
                          {Kind::refused, 1, "No.Key", "", "1\n2", "unknown key"},
                          {Kind::ended, 0, "nvm/param", "", "partSuccess", ""},
                          {Kind::chosen, 0, "nvm/file", "", "/new.xml", "the newest"},
                          {Kind::firmware, 0, "2.14", "2.13", "installs", "newer, automatic"},
                          {Kind::log, 0, "warning", "", "take care", "Core/Pass"}};
    explanation.log = {{dbg::Debug::levelWarning, "Core/Pass", 12, "take care"}};
    explanation.status = "partSuccess";
    explanation.httpCode = "200";
    return explanation;
}

TEST(Report, TextHasOneLineAnEvent) {
    std::ostringstream text;
    print(text, example());
    EXPECT_EQ(text.str(),
              "note      a note\n"
              "file      http://server.example/provisioning.xml (file.xml): 200 OK\n"
              "dropped   nvm/file: not a job\n"
              "job       nvm/param (NVMJobHandler)\n"
              "set         Time.Format: \"24h\" -> \"12h\"\n"
              "refused     No.Key = \"1\\n2\": unknown key\n"
              "result    nvm/param: partSuccess\n"
              "chosen    /new.xml: the newest\n"
              "firmware  installs: newer, automatic (offered \"2.14\", running \"2.13\")\n"
              "warning   take care\n"
              "status    partSuccess (HTTP 200)\n");
}

TEST(Report, TextSaysThatNoPassRan) {
    std::ostringstream text;
    print(text, {});
    EXPECT_EQ(text.str(), "status    no pass\n");
}

TEST(Report, JsonHasEventsAndLog) {
    const Json::Value json = toJson(example());
    EXPECT_EQ(json["status"], "partSuccess");
    EXPECT_EQ(json["httpCode"], "200");
    EXPECT_EQ(json["notes"][0], "a note");
    EXPECT_EQ(json["events"].size(), 9U);
    EXPECT_EQ(json["events"][3]["event"], "set");
    EXPECT_EQ(json["events"][3]["key"], "Time.Format");
    EXPECT_EQ(json["events"][3]["before"], "24h");
    EXPECT_EQ(json["events"][3]["value"], "12h");
    EXPECT_EQ(json["events"][3]["source"], "provisioning");
    EXPECT_EQ(json["events"][3]["depth"].asInt(), 1);
    EXPECT_EQ(json["events"][7]["decision"], "installs");
    EXPECT_EQ(json["log"][0]["level"], "warning");
    EXPECT_EQ(json["log"][0]["source"], "Core/Pass");
    EXPECT_EQ(json["log"][0]["line"].asInt(), 12);
}

TEST(Report, OnlyFailAndNoPassAreFailures) {
    Explanation explanation = example();
    EXPECT_TRUE(succeeds(explanation));
    explanation.status = "success";
    EXPECT_TRUE(succeeds(explanation));
    explanation.status = "fail";
    EXPECT_FALSE(succeeds(explanation));
    explanation.status = "";
    EXPECT_FALSE(succeeds(explanation));
}

}  // namespace
}  // namespace explain
