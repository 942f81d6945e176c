#include "Core/ProvisioningTimer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "unit/Core/support/Phone.h"

namespace {

using fakes::info;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::system_clock;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/ProvisioningTimer";
const Lines fired{info(source, "Provisioning timer: Provisioning ready to go"),
                  info(source, "Provisioning timer: Preparing to restart timer")};

/// A clock that only the test advances. Waits of the timer end when the test ends them or the timer is stopped.
class ManualClock : public zav::TimerClock {
 public:
    explicit ManualClock(system_clock::time_point now) : now_(now) {}

    system_clock::time_point now() const override {
        const std::lock_guard<std::mutex> lock(mutex_);
        return now_;
    }

    std::cv_status waitFor(common::ConditionVariable& condition, common::Mutex& mutex,
                           nanoseconds duration) const override REQUIRES(mutex) {
        announce(condition, mutex, duration);
        condition.wait(mutex);
        const std::lock_guard<std::mutex> own(mutex_);
        condition_ = nullptr;
        if (!timesOut_) return std::cv_status::no_timeout;
        timesOut_ = false;
        now_ += duration + error_;
        return std::cv_status::timeout;
    }

    /// Ends the current wait by time-out, with the wall clock `error` ahead of the wait's end.
    void elapse(nanoseconds error = {}) { endWait(true, error); }
    /// Wakes the timer before its time.
    void wakeSpuriously() { endWait(false, {}); }

    /// Waits until `count` waits have begun and returns all of them.
    std::vector<nanoseconds> waits(std::size_t count) const {
        std::unique_lock<std::mutex> lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, seconds(30), [&] { return waits_.size() >= count; }));
        return waits_;
    }

 private:
    void announce(common::ConditionVariable& condition, common::Mutex& mutex, nanoseconds duration) const {
        const std::lock_guard<std::mutex> own(mutex_);
        condition_ = &condition;
        timerMutex_ = &mutex;
        waits_.push_back(duration);
        changed_.notify_all();
    }

    // Holds the timer's mutex, so that the timer is inside its wait.
    void endWait(bool timesOut, nanoseconds error) const {
        common::ConditionVariable* condition = nullptr;
        common::Mutex* timerMutex = nullptr;
        {
            std::unique_lock<std::mutex> own(mutex_);
            ASSERT_TRUE(changed_.wait_for(own, seconds(30), [&] { return condition_ != nullptr; }));
            condition = condition_;
            timerMutex = timerMutex_;
        }
        const common::LockGuard timer(*timerMutex);
        {
            const std::lock_guard<std::mutex> own(mutex_);
            timesOut_ = timesOut;
            error_ = error;
            condition_ = nullptr;
        }
        condition->notifyAll();
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    // Guarded by mutex_.
    mutable system_clock::time_point now_;
    mutable nanoseconds error_{};
    mutable bool timesOut_ = false;
    mutable common::ConditionVariable* condition_ = nullptr;
    mutable common::Mutex* timerMutex_ = nullptr;
    mutable std::vector<nanoseconds> waits_;
};

class ProvisioningTimerTest : public testing::Test {
 protected:
    ProvisioningTimerTest() {
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    ~ProvisioningTimerTest() override {
        unsetenv("TZ");
        tzset();
    }

    static system_clock::time_point on20November(int hour, milliseconds more = {}) {
        std::tm time{};
        time.tm_year = 126;
        time.tm_mon = 10;
        time.tm_mday = 20;
        time.tm_hour = hour;
        return system_clock::from_time_t(timegm(&time)) + more;
    }

    static Lines schedule(const std::string& kind, const std::string& time, const std::string& wait) {
        return {info(source, kind), info(source, "Next provisioning time is at '" + time + "'"),
                info(source, "That means you have to wait " + wait + " seconds.")};
    }

    std::vector<std::string> requests() const { return phone_.properties->writesTo("State.Provisioning"); }

    tests::Phone phone_;
};

const std::string periodical = "Setting periodical Provisioning";
const std::string nightly = "Setting provisioning for night";

TEST_F(ProvisioningTimerTest, PeriodCountsFromNow) {
    ManualClock clock(on20November(12));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(600);
    EXPECT_EQ(clock.waits(1).back(), seconds(600));
    EXPECT_EQ(phone_.log.lines(), schedule(periodical, "Fri Nov 20 12:10:00 2026", "600"));
    phone_.log.forget();

    clock.elapse();
    EXPECT_EQ(clock.waits(2).back(), seconds(600));
    EXPECT_EQ(requests(), std::vector<std::string>{"request"});
    EXPECT_EQ(phone_.properties->writes().front().source, "");
    Lines expected = fired;
    for (const auto& line : schedule(periodical, "Fri Nov 20 12:20:00 2026", "600")) expected.push_back(line);
    EXPECT_EQ(phone_.log.lines(), expected);
}

TEST_F(ProvisioningTimerTest, PeriodZeroMeansNightly) {
    ManualClock early(on20November(2));
    ManualClock late(on20November(5));
    zav::ProvisioningTimer before(phone_.properties, early);
    before.start(0);
    EXPECT_EQ(phone_.log.lines(), schedule(nightly, "Fri Nov 20 03:53:15 2026", "6795"));
    phone_.log.forget();
    zav::ProvisioningTimer after(phone_.properties, late);
    after.start(0);
    EXPECT_EQ(phone_.log.lines(), schedule(nightly, "Sat Nov 21 03:53:15 2026", "82395"));
    early.waits(1);
    late.waits(1);
}

// Only a night whose wait has just ended must be skipped.
TEST_F(ProvisioningTimerTest, RestartJustBeforeTheNightTimeKeepsIt) {
    ManualClock clock(on20November(3, std::chrono::minutes(53)));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(0);
    EXPECT_EQ(clock.waits(1).back(), seconds(15));
    timer.start(0);
    EXPECT_EQ(clock.waits(2).back(), seconds(15));
}

struct WakeUp {
    const char* name;
    nanoseconds error;  // of the wall clock at the end of the wait
};

class NightTest : public ProvisioningTimerTest, public testing::WithParamInterface<WakeUp> {};

// The logged wait is in whole seconds. The real wait must be exact, or the timer would fire repeatedly until the second
// is over.
TEST_P(NightTest, FiresOnceANight) {
    ManualClock clock(on20November(2, milliseconds(700)));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(0);
    EXPECT_EQ(clock.waits(1).back(), milliseconds(6794300));
    EXPECT_EQ(phone_.log.lines(), schedule(nightly, "Fri Nov 20 03:53:15 2026", "6794"));
    for (std::size_t night = 1; night <= 3; ++night) {
        phone_.log.forget();
        clock.elapse(GetParam().error);
        const nanoseconds wait = clock.waits(night + 1).back();
        EXPECT_EQ(requests().size(), night);
        EXPECT_GT(wait, seconds(86390)) << "night " << night;
        EXPECT_LT(wait, seconds(86410)) << "night " << night;
        const std::string day = night == 1 ? "Sat Nov 21" : night == 2 ? "Sun Nov 22" : "Mon Nov 23";
        EXPECT_TRUE(phone_.log.has(info(source, "Next provisioning time is at '" + day + " 03:53:15 2026'")))
            << phone_.log.text();
    }
}

// The timer cannot know whether the clock was wrong before or is now, so it schedules the night of the new time.
TEST_F(ProvisioningTimerTest, ClockSetBackByAnHourRepeatsTheNight) {
    ManualClock clock(on20November(2));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(0);
    clock.waits(1);
    clock.elapse(-std::chrono::hours(1));
    EXPECT_EQ(clock.waits(2).back(), std::chrono::hours(1));
    EXPECT_EQ(requests().size(), 1U);
}

TEST_F(ProvisioningTimerTest, ClockSetBackByAMinuteRepeatsTheNight) {
    ManualClock clock(on20November(2));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(0);
    clock.waits(1);
    clock.elapse(-seconds(60));
    EXPECT_EQ(clock.waits(2).back(), seconds(60));
}

INSTANTIATE_TEST_SUITE_P(Clocks, NightTest,
                         testing::Values(WakeUp{"exact", nanoseconds(0)}, WakeUp{"late", milliseconds(3)},
                                         WakeUp{"aMomentEarly", nanoseconds(-1)},
                                         WakeUp{"someMillisecondsEarly", milliseconds(-40)},
                                         WakeUp{"aSecondEarly", seconds(-1)}),
                         [](const auto& row) { return row.param.name; });

TEST_F(ProvisioningTimerTest, SpuriousWakeUpRestartsTheWait) {
    ManualClock clock(on20November(12));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(700);
    clock.waits(1);
    phone_.log.forget();
    clock.wakeSpuriously();
    EXPECT_EQ(clock.waits(2), (std::vector<nanoseconds>{seconds(700), seconds(700)}));
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "Provisioning timer: Abort")});
    EXPECT_TRUE(requests().empty());
}

TEST_F(ProvisioningTimerTest, StopEndsTheWaitWithoutARequest) {
    ManualClock clock(on20November(12));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(600);
    clock.waits(1);
    phone_.log.forget();
    timer.stop();
    EXPECT_EQ(phone_.log.lines(), Lines{info(source, "Provisioning timer: Abort")});
    EXPECT_TRUE(phone_.properties->writes().empty());
    timer.stop();
    EXPECT_EQ(phone_.log.lines().size(), 1U);
}

TEST_F(ProvisioningTimerTest, StopWithoutAStartDoesNothing) {
    zav::ProvisioningTimer timer(phone_.properties);
    timer.stop();
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(ProvisioningTimerTest, SecondStartReplacesTheFirst) {
    ManualClock clock(on20November(12));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(600);
    clock.waits(1);
    timer.start(900);
    EXPECT_EQ(clock.waits(2).back(), seconds(900));
    EXPECT_EQ(phone_.log.count(info(source, "Provisioning timer: Abort")), 1U);
    clock.elapse();
    clock.waits(3);
    EXPECT_EQ(requests().size(), 1U) << "one thread, one request";
}

TEST_F(ProvisioningTimerTest, DropsARequestThatCannotBeWritten) {
    ManualClock clock(on20November(12));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    timer.start(600);
    clock.waits(1);
    phone_.log.forget();
    phone_.properties->setOffline(true);
    clock.elapse();
    clock.waits(2);
    Lines expected = fired;
    for (const auto& line : schedule(periodical, "Fri Nov 20 12:20:00 2026", "600")) expected.push_back(line);
    EXPECT_EQ(phone_.log.lines(), expected);
    phone_.properties->setOffline(false);
    clock.elapse();
    clock.waits(3);
    EXPECT_EQ(requests().size(), 1U) << "the failed request must not be repeated";
}

TEST_F(ProvisioningTimerTest, ConcurrentStartsAndStopsLeaveOneTimer) {
    ManualClock clock(on20November(12));
    zav::ProvisioningTimer timer(phone_.properties, clock);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&timer] {
            for (int n = 0; n < 20; ++n) {
                timer.start(600);
                timer.stop();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const std::size_t before = clock.waits(0).size();
    timer.start(600);
    clock.waits(before + 1);
    clock.elapse();
    clock.waits(before + 2);
    EXPECT_EQ(requests().size(), 1U);
}

TEST_F(ProvisioningTimerTest, FiresOnTheRealClock) {
    zav::ProvisioningTimer timer(phone_.properties);
    timer.start(1);
    EXPECT_TRUE(phone_.properties->waitForWrite("State.Provisioning", "request"));
}

}  // namespace
