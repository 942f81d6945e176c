#include "ProgressBar.h"

#include <gtest/gtest.h>

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

    ProgressBar::Time time;
    std::ostringstream stream;
    ProgressBar bar{stream, true, [this] { return time; }};
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
    EXPECT_EQ(drawn(25000, 100000), "\r[#####               ] 25,000/100,000 rows, 2,500/s, 30 s left\x1b[K");
    time += std::chrono::seconds(10);
    EXPECT_EQ(drawn(26000, 1000000), "\r[                    ] 26,000/1,000,000 rows, 1,300/s, 12 min 30 s left\x1b[K");
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
    EXPECT_EQ(drawn(3000, 0), "\r3,000 rows, 1,500/s\x1b[K");
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
