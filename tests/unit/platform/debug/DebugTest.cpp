#include "debug/Debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <thread>
#include <vector>

namespace {

const dbg::Debug channel("TEST");

class DebugTest : public testing::Test {
 protected:
    void SetUp() override { dbg::Debug::setDebugLevelMask("7"); }
    void TearDown() override { dbg::Debug::setDebugLevelMask("7"); }

    template <typename Action>
    std::string written(Action action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(DebugTest, LineHasTimeChannelLevelSourceAndText) {
    const int line = __LINE__ + 1;
    const std::string text = written([] { dbg::Debug::warning() << "Period is " << 600 << " seconds." << std::endl; });
    const std::regex expected(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} TEST warning )"
                              "tests/unit/platform/debug/DebugTest:" +
                              std::to_string(line) + R"( Period is 600 seconds\.\n)");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

// Unlike time(), which may lag behind.
std::time_t now() { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); }

std::string localTime(std::time_t second) {
    tm local{};
    localtime_r(&second, &local);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &local)};
}

// Lines of one second share their text, so this goes on until the second has changed.
TEST_F(DebugTest, TimeIsThatOfTheLine) {
    const std::time_t begin = now();
    for (std::time_t before = begin; before < begin + 2;) {
        const std::string text = written([] { dbg::Debug::info() << "now" << std::endl; });
        const std::string time = text.substr(0, text.find('.'));
        const std::time_t after = now();
        ASSERT_GE(time, localTime(before));
        ASSERT_LE(time, localTime(after));
        before = after;
    }
}

TEST_F(DebugTest, NumbersFlagsAndCharactersReadAsInAStream) {
    const std::string text =
        written([] { dbg::Debug::info() << -5 << ' ' << 7UL << ' ' << true << ' ' << 0.5 << ' ' << 'c' << std::endl; });
    EXPECT_NE(text.find(" -5 7 1 0.5 c\n"), std::string::npos) << text;
}

TEST_F(DebugTest, TextFromOutsideCannotForgeALine) {
    const std::string text = written([] { dbg::Debug::info() << std::string("a\nb\r\x1b[0m\0\x7f", 10) << std::endl; });
    EXPECT_NE(text.find("a\\nb\\r\\x1b[0m\\x00\\x7f\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(DebugTest, VerbatimTextKeepsItsLayout) {
    const std::string document = "\n{\n\t\"a\" : 1\n}\n";
    const std::string text = written([&] { dbg::Debug::info() << "is" << dbg::verbatim(document) << std::endl; });
    EXPECT_NE(text.find("is\n{\n\t\"a\" : 1\n}\n\n"), std::string::npos) << text;
}

TEST_F(DebugTest, MaskSelectsTheLevels) {
    const auto all = [] {
        dbg::Debug::error() << "E" << std::endl;
        dbg::Debug::warning() << "W" << std::endl;
        dbg::Debug::info() << "I" << std::endl;
    };
    const auto levels = [&](const std::string& mask) {
        dbg::Debug::setDebugLevelMask(mask);
        const std::string text = written(all);
        std::string seen;
        for (const char* level : {" error ", " warning ", " info "}) {
            if (text.find(level) != std::string::npos) seen += level[1];
        }
        return seen;
    };
    EXPECT_EQ(levels("1"), "e");
    EXPECT_EQ(levels("2"), "w");
    EXPECT_EQ(levels("4"), "i");
    EXPECT_EQ(levels("0x3"), "ew");
    EXPECT_EQ(levels("0X5"), "ei");
    EXPECT_EQ(levels("255"), "ewi");
    EXPECT_EQ(levels("0x100000001"), "e");
    EXPECT_EQ(levels("0"), "");
}

TEST_F(DebugTest, InvalidMaskIsIgnoredWithAWarning) {
    dbg::Debug::setDebugLevelMask("3");
    for (const char* mask : {"", "x", "-1", "7 ", "0x", "99999999999999999999999", "1\n"}) {
        const std::string text = written([&] { dbg::Debug::setDebugLevelMask(mask); });
        EXPECT_NE(text.find("is not a number, ignored"), std::string::npos) << mask;
        EXPECT_EQ(written([] { dbg::Debug::info() << "still off" << std::endl; }), "") << mask;
    }
}

/// Logs a line of each level in a process of its own, because JOURNAL_STREAM is read once.
class JournalTest : public DebugTest {
 protected:
    JournalTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    [[noreturn]] static void logWithJournalStream(ino_t inodeOffset) {
        struct stat status {};
        fstat(STDERR_FILENO, &status);
        const std::string journal = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + inodeOffset);
        setenv("JOURNAL_STREAM", journal.c_str(), 1);
        dbg::Debug::error() << "E" << std::endl;
        dbg::Debug::warning() << "W" << std::endl;
        const std::string lines = "I\n{\n}";
        dbg::Debug::info() << dbg::verbatim(lines) << std::endl;
        std::_Exit(0);
    }
};

TEST_F(JournalTest, EachLineHasAPriority) {
    EXPECT_EXIT(logWithJournalStream(0), testing::ExitedWithCode(0),
                testing::ContainsRegex("<3>[^\n<]* TEST error [^\n]* E\n<4>[^\n<]* TEST warning [^\n]* W\n"
                                       "<6>[^\n<]* TEST info [^\n]* I\n<6>[{]\n<6>[}]\n"));
}

TEST_F(JournalTest, NoPriorityIfStandardErrorIsNotTheJournal) {
    EXPECT_EXIT(logWithJournalStream(1), testing::ExitedWithCode(0),
                testing::AllOf(testing::HasSubstr(" I\n{\n}\n"), testing::Not(testing::HasSubstr("<"))));
}

TEST_F(DebugTest, LineWithoutEndlIsWrittenOnDestruction) {
    EXPECT_NE(written([] { dbg::Debug::info() << "no end of line"; }).find("no end of line\n"), std::string::npos);
}

TEST_F(DebugTest, LinesOfManyThreadsAreNotInterleaved) {
    const std::string text = written([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([] {
                for (int n = 0; n < 100; ++n) dbg::Debug::info() << std::string(200, 'x') << std::endl;
            });
        }
        for (auto& thread : threads) thread.join();
    });
    std::istringstream lines(text);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_EQ(line.substr(line.size() - 201), " " + std::string(200, 'x'));
    }
    EXPECT_EQ(count, 400);
}

TEST_F(DebugTest, RedirectedLinesGoToTheSinkOnly) {
    std::vector<dbg::LogLine> lines;
    const std::string text = written([&lines] {
        dbg::Debug::redirect([&lines](const dbg::LogLine& line) { lines.push_back(line); });
        dbg::Debug::warning("src/a.b/File.cpp", 12) << "x\n" << 1 << std::endl;
        dbg::Debug::setDebugLevelMask("1");
        dbg::Debug::warning() << "off" << std::endl;
        dbg::Debug::redirect({});
        dbg::Debug::error() << "not redirected" << std::endl;
    });
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, dbg::Debug::levelWarning);
    EXPECT_EQ(lines[0].source, "src/a.b/File");
    EXPECT_EQ(lines[0].line, 12);
    EXPECT_EQ(lines[0].text, "x\\n1");
    EXPECT_THAT(text, testing::EndsWith("not redirected\n"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("File")));
}

}  // namespace
