#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "Core/ProvisioningTimer.h"

namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

/// The zone is a POSIX rule for Central Europe, so that the test needs no time zone files.
class NightScheduleTest : public testing::Test {
 protected:
    void SetUp() override { setZone("CET-1CEST,M3.5.0,M10.5.0/3"); }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }

    static void setZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

    static system_clock::time_point local(int year, int month, int day, int hour, int minute = 0, int second = 0) {
        std::tm time{};
        time.tm_year = year - 1900;
        time.tm_mon = month - 1;
        time.tm_mday = day;
        time.tm_hour = hour;
        time.tm_min = minute;
        time.tm_sec = second;
        time.tm_isdst = -1;
        return system_clock::from_time_t(std::mktime(&time));
    }

    static system_clock::time_point next(system_clock::time_point now) {
        return zav::nextNight(now, zav::nightOffset());
    }
};

TEST_F(NightScheduleTest, OffsetIsTheSameOnEveryDeviceAndDay) { EXPECT_EQ(zav::nightOffset(), seconds(13995)); }

TEST_F(NightScheduleTest, BeforeTheNightTimeItIsToday) {
    const auto now = local(2026, 11, 20, 2);
    EXPECT_EQ(next(now), local(2026, 11, 20, 3, 53, 15));
    EXPECT_EQ(next(now) - now, seconds(6795));
}

TEST_F(NightScheduleTest, AfterTheNightTimeItIsTomorrow) {
    const auto now = local(2026, 11, 20, 5);
    EXPECT_EQ(next(now), local(2026, 11, 21, 3, 53, 15));
    EXPECT_EQ(next(now) - now, seconds(82395));
}

TEST_F(NightScheduleTest, AtTheNightTimeItIsNow) {
    const auto time = local(2026, 11, 20, 3, 53, 15);
    EXPECT_EQ(next(time), time);
    EXPECT_EQ(next(time + std::chrono::nanoseconds(1)), time + seconds(86400));
    EXPECT_EQ(next(time - std::chrono::nanoseconds(1)), time);
}

TEST_F(NightScheduleTest, ClockChangeMovesTheWallTimeByAnHour) {
    // Clocks go forward on 29 March 2026 and back on 25 October 2026.
    EXPECT_EQ(next(local(2026, 3, 28, 5)), local(2026, 3, 29, 4, 53, 15));
    EXPECT_EQ(next(local(2026, 3, 29, 1)), local(2026, 3, 29, 4, 53, 15));
    // After the change midnight is in summer time, so the nightly time is the usual one again.
    EXPECT_EQ(next(local(2026, 3, 29, 6)), local(2026, 3, 30, 3, 53, 15));
    // 02:53:15 in winter time: this local time comes twice that morning, and this is the second.
    const auto october = local(2026, 10, 25, 0) + seconds(13995);
    EXPECT_EQ(next(local(2026, 10, 24, 5)), october);
    EXPECT_EQ(next(local(2026, 10, 25, 1)), october);
    EXPECT_EQ(october, local(2026, 10, 25, 4) - seconds(3600 + 6 * 60 + 45));
}

TEST_F(NightScheduleTest, FollowsAChangeOfTheTimeZone) {
    const auto noon = local(2026, 11, 20, 12);
    const auto inEurope = next(noon);
    setenv("TZ", "UTC0", 1);  // without tzset: nextNight must call it
    EXPECT_EQ(next(noon) - inEurope, std::chrono::hours(1));
}

TEST_F(NightScheduleTest, FollowsAChangeOfTheTimeZoneToAnotherDate) {
    setZone("UTC0");
    const auto evening = local(2026, 11, 20, 20);
    setenv("TZ", "<+14>-14", 1);  // there it is 10:00 on the 21st
    const auto night = next(evening);
    tzset();
    EXPECT_EQ(night, local(2026, 11, 22, 3, 53, 15));
}

}  // namespace
