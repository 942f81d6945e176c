#include <gtest/gtest.h>

#include <chrono>

#include "Pace.h"
#include "ResumePlan.h"

namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using zav::keepsPace;
using zav::ResumePlan;

constexpr std::uint64_t mebibyte = 1024 * 1024;

TEST(Pace, GivesEveryServerFiveMinutes) {
    EXPECT_TRUE(keepsPace(seconds(0), 0));
    EXPECT_TRUE(keepsPace(minutes(5), 0));
    EXPECT_FALSE(keepsPace(minutes(5) + seconds(1), 0));
}

TEST(Pace, LetsASlowLineGoOn) {
    // 2 KiB a second for two hours.
    EXPECT_TRUE(keepsPace(hours(2), 2 * 1024 * 7200));
}

TEST(Pace, EndsADrippingServer) {
    // Ten bytes a minute never stall; after ten minutes it is over all the same.
    EXPECT_FALSE(keepsPace(minutes(10), 100));
}

TEST(ResumePlan, TriesTheFirstTimeAtOnce) { EXPECT_EQ(ResumePlan().next(0), seconds(0)); }

TEST(ResumePlan, WaitsLongerEachTimeAndGivesUp) {
    ResumePlan plan;
    const long expected[] = {0, 1, 2, 4, 8, 16, 30, 30, 30};
    for (const long wait : expected) EXPECT_EQ(plan.next(100), seconds(wait));
    EXPECT_EQ(plan.next(100), std::nullopt);
}

TEST(ResumePlan, BeginsAnewWithEachStepForward) {
    ResumePlan plan;
    for (int idle = 0; idle < 9; ++idle) EXPECT_NE(plan.next(0), std::nullopt);
    EXPECT_EQ(plan.next(mebibyte), seconds(0));
    for (int idle = 0; idle < 9; ++idle) EXPECT_NE(plan.next(mebibyte + 1), std::nullopt);
    EXPECT_EQ(plan.next(mebibyte + 2), std::nullopt);
}

TEST(ResumePlan, EndsWithAHundredAttempts) {
    ResumePlan plan;
    std::uint64_t size = 0;
    for (int attempt = 1; attempt < 100; ++attempt) EXPECT_NE(plan.next(size += mebibyte), std::nullopt);
    EXPECT_EQ(plan.next(size + mebibyte), std::nullopt);
}

TEST(ResumePlan, TellsBreaksFromFailures) {
    // A cut body, a failed receive, a refused connection, a time-out.
    for (const int result : {18, 56, 7, 28}) EXPECT_TRUE(ResumePlan::isBreak(result)) << result;
    // Done, too large, not written, not trusted, a wrong range, too many redirects.
    for (const int result : {0, 63, 23, 60, 33, 47}) EXPECT_FALSE(ResumePlan::isBreak(result)) << result;
}

}  // namespace
