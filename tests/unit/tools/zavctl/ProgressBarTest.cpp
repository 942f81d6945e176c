#include "ProgressBar.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace zavctl {
namespace {

class ProgressBarTest : public testing::Test {
 protected:
    std::string drawn(std::uint64_t done, std::uint64_t total) {
        stream.str("");
        bar.show(done, total, "rows");
        return stream.str();
    }

    std::size_t columns = 80;
    ProgressBar::Time time;
    std::ostringstream stream;
    ProgressBar bar{stream, true, [this] { return columns; }, [this] { return time; }};
};

TEST_F(ProgressBarTest, PrintsNothingUnlessOnATerminal) {
    ProgressBar silent(stream, false);
    silent.show(1, 2, "rows");
    silent.clear();
    EXPECT_EQ(stream.str(), "");
}

TEST_F(ProgressBarTest, ShowsShareRateAndTimeLeft) {
    EXPECT_EQ(drawn(0, 100000), "\r[                    ] 0/100,000 rows\x1b[K");
    time += std::chrono::seconds(10);
    EXPECT_EQ(drawn(25000, 100000), "\r[#####               ] 25,000/100,000 rows, 2,500 rows/s, 30 s left\x1b[K");
    time += std::chrono::seconds(10);
    EXPECT_EQ(drawn(26000, 1000000),
              "\r[                    ] 26,000/1,000,000 rows, 1,300 rows/s, 12 min 30 s left\x1b[K");
}

TEST_F(ProgressBarTest, LongTimesAreShownInHours) {
    drawn(0, 100000);
    time += std::chrono::seconds(10);
    EXPECT_EQ(drawn(100, 100000), "\r[                    ] 100/100,000 rows, 10 rows/s, 2 h 46 min left\x1b[K");
}

TEST_F(ProgressBarTest, SmallFilesAreCountedInBytesAndKilobytes) {
    bar.show(0, 900, "bytes", "nvm");
    EXPECT_EQ(stream.str(), "\r[                    ] 0/900 bytes nvm\x1b[K");
    stream.str("");
    time += std::chrono::seconds(1);
    bar.show(0, 900, "bytes", "nvm");
    EXPECT_EQ(stream.str(), "\r[                    ] 0/900 bytes nvm\x1b[K") << "no rate as long as nothing came";
}

TEST_F(ProgressBarTest, DrawsAtMostTenTimesASecondAndAlwaysTheEnd) {
    EXPECT_NE(drawn(1, 3), "");
    time += std::chrono::milliseconds(99);
    EXPECT_EQ(drawn(2, 3), "");
    EXPECT_EQ(drawn(3, 3), "\r[####################] 3/3 rows\x1b[K");
    time += std::chrono::milliseconds(100);
    EXPECT_NE(drawn(2, 3), "");
}

TEST_F(ProgressBarTest, AnUnknownTotalHasNeitherShareNorTimeLeft) {
    drawn(0, 0);
    time += std::chrono::seconds(2);
    EXPECT_EQ(drawn(3000, 0), "\r3,000 rows, 1,500 rows/s\x1b[K");
}

TEST_F(ProgressBarTest, BytesHaveTheUnitThatSuitsThem) {
    const auto drawnBytes = [this](std::uint64_t done) {
        stream.str("");
        bar.show(done, 20000000, "bytes", "firmware");
        return stream.str();
    };
    EXPECT_EQ(drawnBytes(0), "\r[                    ] 0.0/20.0 MB firmware\x1b[K");
    time += std::chrono::seconds(4);
    EXPECT_EQ(drawnBytes(8000000), "\r[########            ] 8.0/20.0 MB firmware, 2.0 MB/s, 6 s left\x1b[K");
    time += std::chrono::seconds(16);
    EXPECT_EQ(drawnBytes(8500000), "\r[########            ] 8.5/20.0 MB firmware, 425.0 kB/s, 28 s left\x1b[K");
}

TEST_F(ProgressBarTest, TheNarrowerTheTerminalTheLessIsSaid) {
    drawn(0, 1000000);
    const auto drawnAt = [this](std::size_t width) {
        columns = width;
        time += std::chrono::seconds(1);
        const std::string line = drawn(500000, 1000000);
        return line.substr(1, line.size() - 4);
    };
    time += std::chrono::seconds(19);
    EXPECT_EQ(drawnAt(200), "[##########          ] 500,000/1,000,000 rows, 25,000 rows/s, 20 s left");
    EXPECT_EQ(drawnAt(65), "[######       ] 500,000/1,000,000 rows, 23,809 rows/s, 21 s left");
    EXPECT_EQ(drawnAt(55), "500,000/1,000,000 rows, 22,727 rows/s, 22 s left");
    EXPECT_EQ(drawnAt(40), "500,000/1,000,000 rows, 23 s left");
    EXPECT_EQ(drawnAt(20), "50 %, 24 s left");
    EXPECT_EQ(drawnAt(10), "50 %");
    for (std::size_t width = 1; width < 100; ++width) EXPECT_LT(drawnAt(width).size(), std::max<std::size_t>(width, 2));
}

// Standard error is the terminal.
TEST_F(ProgressBarTest, AsksThePseudoTerminalAndTheVariableForTheWidth) {
    struct winsize size {};
    size.ws_col = 20;
    int controller = -1;
    int terminal = -1;
    ASSERT_EQ(::openpty(&controller, &terminal, nullptr, nullptr, &size), 0);
    const int standardError = ::dup(STDERR_FILENO);
    ::dup2(terminal, STDERR_FILENO);
    ::unsetenv("COLUMNS");  // NOLINT(concurrency-mt-unsafe): the test has one thread
    const std::size_t ofTerminal = terminalColumns();
    ProgressBar onTerminal(stream, true, terminalColumns, [this] { return time; });
    onTerminal.show(5, 10, "rows");
    const std::string narrow = stream.str();
    ::setenv("COLUMNS", "33", 1);  // NOLINT(concurrency-mt-unsafe)
    const std::size_t ofVariable = terminalColumns();
    ::setenv("COLUMNS", "wide", 1);  // NOLINT(concurrency-mt-unsafe)
    const std::size_t ofNonsense = terminalColumns();
    ::unsetenv("COLUMNS");  // NOLINT(concurrency-mt-unsafe)
    ::dup2(standardError, STDERR_FILENO);
    for (const int descriptor : {controller, terminal, standardError}) ::close(descriptor);
    EXPECT_EQ(ofTerminal, 20U);
    EXPECT_EQ(narrow, "\r[###    ] 5/10 rows\x1b[K");
    EXPECT_EQ(ofVariable, 33U);
    EXPECT_EQ(ofNonsense, 20U);
}

TEST_F(ProgressBarTest, ClearRemovesTheLineOnce) {
    drawn(1, 2);
    stream.str("");
    bar.clear();
    bar.clear();
    EXPECT_EQ(stream.str(), "\r\x1b[K");
}

}  // namespace
}  // namespace zavctl
