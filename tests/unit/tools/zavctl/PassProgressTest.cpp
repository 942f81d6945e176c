#include "PassProgress.h"

#include <gtest/gtest.h>

#include "Phone.h"

namespace zavctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

JobProgress job(const std::string& name, std::uint64_t done, std::uint64_t total, const std::string& unit) {
    return {name, done, total, unit};
}

TEST(ParseProgress, ReadsWhatTheDaemonPublishes) {
    const auto progress = parseProgress(R"({"param":"firmware","value":"5/12000000 bytes"})");
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->job, "firmware");
    EXPECT_EQ(progress->done, 5U);
    EXPECT_EQ(progress->total, 12000000U);
    EXPECT_EQ(progress->unit, "bytes");
}

TEST(ParseProgress, RefusesEverythingElse) {
    for (const char* value : {"", "5", "5/", "/5 bytes", "5/5", "5/5 ", "5/5 pages", "-1/5 bytes", "5 /5 bytes",
                              "5/5x bytes", "9999999999999999999999/5 bytes", "a/b bytes"}) {
        EXPECT_FALSE(parseProgress(std::string(R"({"param":"nvm","value":")") + value + "\"}")) << value;
    }
    for (const char* content : {"", "{}", "[]", R"({"param":"nvm"})", R"({"param":"","value":"1/2 items"})"}) {
        EXPECT_FALSE(parseProgress(content)) << content;
    }
}

TEST(ProgressFeed, KeepsTheLatestMessagesOfItsTopic) {
    ProgressFeed feed;
    feed.messageArrived("prop-service-state/State.Provisioning", R"({"param":"nvm","value":"1/2 items"})");
    EXPECT_TRUE(feed.take().empty());
    for (std::size_t i = 0; i < ProgressFeed::maximumKept + 5; ++i) {
        feed.messageArrived(progressTopic, R"({"param":"nvm","value":")" + std::to_string(i) + R"(/9 items"})");
    }
    const std::vector<JobProgress> kept = feed.take();
    ASSERT_EQ(kept.size(), ProgressFeed::maximumKept);
    EXPECT_EQ(kept.front().done, 5U);
    EXPECT_TRUE(feed.take().empty());
}

class PassProgressTest : public testing::Test {
 protected:
    PassProgressTest() {
        phone.terminal = true;
        phone.now = [this] { return time; };
    }

    Environment environment() {
        return {phone.out,
                phone.err,
                phone.terminal,
                phone.errTerminal,
                phone.stopSignal,
                {},
                {},
                {},
                phone.hintAfter,
                phone.progressEvery,
                phone.now,
                [this] { return phone.columns; }};
    }
    std::string printed() {
        std::string text = phone.out.str() + phone.err.str();
        phone.out.str("");
        phone.err.str("");
        return text;
    }

    std::chrono::steady_clock::time_point time;
    Phone phone{{}};
};

TEST_F(PassProgressTest, ABarOnATerminal) {
    const Environment terminal = environment();
    PassProgress progress(terminal, false);
    progress.show("Provisioning", {}, seconds(0));
    EXPECT_EQ(printed(), "Provisioning … 0 s");
    progress.show("Provisioning", {job("firmware", 1000000, 12000000, "bytes")}, seconds(1));
    EXPECT_EQ(printed(), "\r\x1b[K\r[#                   ] 1.0/12.0 MB firmware\x1b[K");
    time += seconds(4);
    progress.show("Provisioning", {job("firmware", 5000000, 12000000, "bytes")}, seconds(5));
    EXPECT_EQ(printed(), "\r[########            ] 5.0/12.0 MB firmware, 1.0 MB/s, 7 s left\x1b[K");
    time += seconds(1);
    progress.show("Provisioning", {}, seconds(6));
    EXPECT_EQ(printed(), "") << "the next message may be on its way";
    time += seconds(1);
    progress.show("Provisioning", {}, seconds(7));
    EXPECT_EQ(printed(), "\r[########            ] 5.0/12.0 MB firmware, 666.7 kB/s, 11 s left\x1b[K");
    progress.clear();
    EXPECT_EQ(printed(), "\r\x1b[K");
}

TEST_F(PassProgressTest, EachJobHasItsOwnRate) {
    const Environment terminal = environment();
    PassProgress progress(terminal, false);
    progress.show("Provisioning", {job("nvm", 10, 100, "items")}, seconds(0));
    time += seconds(10);
    progress.show("Provisioning", {job("nvm", 100, 100, "items"), job("settings", 5, 50, "items")}, seconds(10));
    time += seconds(1);
    printed();
    progress.show("Provisioning", {job("settings", 15, 50, "items")}, seconds(11));
    EXPECT_EQ(printed(), "\r[######              ] 15/50 settings, 10 settings/s, 4 s left\x1b[K");
}

TEST_F(PassProgressTest, TheLineFitsIntoTheNarrowestTerminal) {
    const Environment terminal = environment();
    for (const JobProgress& each :
         {job("provisioning", 16000000, 16777216, "bytes"), job("firmware", 99999999, 100000000, "bytes"),
          job("firmware", 4000000000, 4294967296, "bytes"), job("settings", 99990, 100000, "items")}) {
        PassProgress progress(terminal, false);
        progress.show("", {job(each.job, 1, each.total, each.unit)}, seconds(0));
        time += seconds(3);
        printed();
        progress.show("", {each}, seconds(1));
        const std::string line = printed();
        EXPECT_LT(line.size(), 80U + 4U) << line;  // besides the carriage return and the erasure
    }
}

TEST_F(PassProgressTest, ALineEveryTenSecondsElsewhere) {
    phone.terminal = false;
    const Environment pipe = environment();
    PassProgress progress(pipe, false);
    progress.show("Waiting for the pass to begin", {}, milliseconds(9999));
    EXPECT_EQ(printed(), "");
    progress.show("Waiting for the pass to begin", {}, milliseconds(10100));
    EXPECT_EQ(printed(), "zavctl: Waiting for the pass to begin, 10 s\n");
    progress.show("Provisioning", {job("nvm", 1, 100000, "items")}, milliseconds(19900));
    EXPECT_EQ(printed(), "");
    progress.show("Provisioning", {job("nvm", 34000, 100000, "items")}, milliseconds(20000));
    EXPECT_EQ(printed(), "zavctl: nvm: 34000 of 100000 settings, 20 s\n");
    progress.show("Provisioning", {job("firmware", 5000000, 0, "bytes")}, milliseconds(45000));
    EXPECT_EQ(printed(), "zavctl: firmware: 5000 kB, 45 s\n");
    progress.show("Provisioning", {}, milliseconds(49000));
    EXPECT_EQ(printed(), "") << "the next one is due after 50 s";
}

TEST_F(PassProgressTest, LinesHaveTheUnitThatSuitsThem) {
    phone.terminal = false;
    const Environment pipe = environment();
    for (const auto& [total, text] : {std::pair(99999U, "1 of 99999 bytes"), std::pair(100000U, "0 of 100 kB"),
                                      std::pair(100000000U, "0 of 100 MB")}) {
        PassProgress progress(pipe, false);
        progress.show("", {job("firmware", 1, total, "bytes")}, seconds(100000));
        EXPECT_EQ(printed(), "zavctl: firmware: " + std::string(text) + ", 100000 s\n");
    }
}

TEST_F(PassProgressTest, AJobThatBeginsAgainHasANewBar) {
    const Environment terminal = environment();
    PassProgress progress(terminal, false);
    progress.show("Provisioning", {job("nvm", 50, 100, "items")}, seconds(0));
    time += seconds(10);
    printed();
    progress.show("Provisioning", {job("nvm", 10, 100, "items")}, seconds(10));
    EXPECT_EQ(printed(), "\r\x1b[K\r[##                  ] 10/100 settings\x1b[K");
    progress.show("Provisioning", {job("nvm", 10, 100, "bytes")}, seconds(10));
    EXPECT_NE(printed().find("10/100 bytes nvm"), std::string::npos);
    progress.show("Provisioning", {job("nvm", 0, 100, "bytes")}, seconds(10));
    EXPECT_NE(printed().find("Provisioning … 10 s"), std::string::npos);
}

TEST_F(PassProgressTest, EventsWithJson) {
    const Environment terminal = environment();
    PassProgress progress(terminal, true);
    progress.show("Provisioning", {job("nvm", 0, 2, "items"), job("nvm", 2, 2, "items")}, seconds(60));
    progress.clear();
    EXPECT_EQ(printed(),
              "{\"done\":0,\"event\":\"progress\",\"job\":\"nvm\",\"total\":2,\"unit\":\"items\"}\n"
              "{\"done\":2,\"event\":\"progress\",\"job\":\"nvm\",\"total\":2,\"unit\":\"items\"}\n");
}

}  // namespace
}  // namespace zavctl
