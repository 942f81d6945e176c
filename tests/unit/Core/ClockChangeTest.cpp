// The nightly timer around a change to or from summer time: every request, in local time.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <ostream>

#include "Core/ProvisioningTimer.h"
#include "unit/Core/support/Phone.h"

namespace {

using std::chrono::hours;
using std::chrono::nanoseconds;
using std::chrono::system_clock;

/// A clock whose waits return at once, until `end` or the maximum number of waits is reached.
class LeapingClock : public zav::TimerClock {
 public:
    LeapingClock(system_clock::time_point begin, system_clock::time_point end) : now_(begin), end_(end) {}

    system_clock::time_point now() const override {
        const std::lock_guard<std::mutex> lock(mutex_);
        return now_;
    }

    std::cv_status waitFor(common::ConditionVariable& condition, common::Mutex& mutex,
                           nanoseconds duration) const override REQUIRES(mutex) {
        {
            const std::lock_guard<std::mutex> own(mutex_);
            if (now_ + duration < end_ && ++waits_ < maxWaits) {
                now_ += std::chrono::duration_cast<system_clock::duration>(duration);
                return std::cv_status::timeout;
            }
            ended_ = true;
            changed_.notify_all();
        }
        condition.wait(mutex);
        return std::cv_status::no_timeout;
    }

    bool waitForEnd() const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [this] { return ended_; });
    }

 private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    mutable system_clock::time_point now_;  // guarded by mutex_
    mutable unsigned waits_ = 0;            // guarded by mutex_
    mutable bool ended_ = false;            // guarded by mutex_
    const system_clock::time_point end_;
    static constexpr unsigned maxWaits = 20;
};

/// A time zone as a POSIX rule, so that the test needs no time zone files, and the day before its clocks change.
struct ClockChange {
    const char* name;
    const char* zone;
    int month;
    int day;
    std::vector<std::string> requests;  // in the 40 hours after that evening
};

void PrintTo(const ClockChange& change, std::ostream* stream) { *stream << change.name; }

class ClockChangeTest : public testing::TestWithParam<ClockChange> {
 protected:
    ClockChangeTest() {
        setenv("TZ", GetParam().zone, 1);
        tzset();
    }
    ~ClockChangeTest() override {
        unsetenv("TZ");
        tzset();
    }

    static system_clock::time_point eightInTheEvening() {
        std::tm evening{};
        evening.tm_year = 126;
        evening.tm_mon = GetParam().month - 1;
        evening.tm_mday = GetParam().day;
        evening.tm_hour = 20;
        evening.tm_isdst = -1;
        return system_clock::from_time_t(std::mktime(&evening));
    }

    static std::string localText(system_clock::time_point time) {
        const std::time_t seconds = system_clock::to_time_t(time);
        std::tm local{};
        localtime_r(&seconds, &local);
        std::array<char, 64> text{};
        std::strftime(text.data(), text.size(), "%a %d %b %H:%M:%S %Z", &local);
        return text.data();
    }

    tests::Phone phone_;
};

TEST_P(ClockChangeTest, NightlyRequestsFollowTheChange) {
    const auto evening = eightInTheEvening();
    const LeapingClock clock(evening, evening + hours(40));
    std::vector<std::string> requests;
    phone_.properties->onWrite([&](const fakes::PropertyWrite&) { requests.push_back(localText(clock.now())); });
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(0);
    ASSERT_TRUE(clock.waitForEnd());
    timer.stop();
    EXPECT_EQ(requests, GetParam().requests);
    phone_.properties->onWrite({});
}

// When clocks go forward, the nightly time moves by the change, once. When they go back, it comes twice: counted from
// midnight in the old time, and again in the new time.
const ClockChange changes[] = {
    {"BerlinSpring", "CET-1CEST,M3.5.0,M10.5.0/3", 3, 28, {"Sun 29 Mar 04:53:15 CEST", "Mon 30 Mar 03:53:15 CEST"}},
    {"BerlinAutumn",
     "CET-1CEST,M3.5.0,M10.5.0/3",
     10,
     24,
     {"Sun 25 Oct 02:53:15 CET", "Sun 25 Oct 03:53:15 CET", "Mon 26 Oct 03:53:15 CET"}},
    {"NewYorkSpring", "EST5EDT,M3.2.0,M11.1.0", 3, 7, {"Sun 08 Mar 04:53:15 EDT", "Mon 09 Mar 03:53:15 EDT"}},
    {"NewYorkAutumn",
     "EST5EDT,M3.2.0,M11.1.0",
     10,
     31,
     {"Sun 01 Nov 02:53:15 EST", "Sun 01 Nov 03:53:15 EST", "Mon 02 Nov 03:53:15 EST"}},
    {"LordHoweSpring",
     "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
     10,
     3,
     {"Sun 04 Oct 04:23:15 +11", "Mon 05 Oct 03:53:15 +11"}},
    {"LordHoweAutumn",
     "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
     4,
     4,
     {"Sun 05 Apr 03:23:15 +1030", "Sun 05 Apr 03:53:15 +1030", "Mon 06 Apr 03:53:15 +1030"}},
};

INSTANTIATE_TEST_SUITE_P(Zones, ClockChangeTest, testing::ValuesIn(changes),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
