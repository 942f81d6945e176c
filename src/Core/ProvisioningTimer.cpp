#include "Core/ProvisioningTimer.h"

#include <array>
#include <ctime>
#include <random>
#include <string>

#include "Core/Constants.h"
#include "common/Quote.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr std::uint32_t earliestNightOffset = 3600;
constexpr std::uint32_t latestNightOffset = 14400;

// The steady clock that times the wait and the wall clock drift apart over a night.
constexpr std::chrono::minutes clockTolerance{1};

std::string readableTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::array<char, 32> buffer{};
    if (ctime_r(&seconds, buffer.data()) == nullptr) return {};
    std::string text(buffer.data());
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

}  // namespace

// Uniformly distributed: the generator's values are divided into equal buckets, and values beyond the last full bucket
// are drawn again. Does not use std::uniform_int_distribution, whose results differ between standard libraries.
std::chrono::seconds nightOffset() {
    std::seed_seq seed(constants.macAddressKey.begin(), constants.macAddressKey.end());
    std::minstd_rand0 generator(seed);  // multiplier 16807, modulus 2147483647, no increment

    constexpr std::uint32_t wanted = latestNightOffset - earliestNightOffset + 1;
    constexpr std::uint32_t bucket = (std::minstd_rand0::max() - std::minstd_rand0::min()) / wanted;
    std::uint32_t value = 0;
    do {
        value = static_cast<std::uint32_t>(generator() - std::minstd_rand0::min());
    } while (value >= wanted * bucket);
    return std::chrono::seconds(earliestNightOffset + value / bucket);
}

std::chrono::system_clock::time_point nextNight(std::chrono::system_clock::time_point now,
                                                std::chrono::seconds offset) {
    using std::chrono::system_clock;
    const std::time_t seconds = system_clock::to_time_t(now);
    tzset();  // localtime_r need not re-read the time zone
    std::tm midnight{};
    localtime_r(&seconds, &midnight);
    midnight.tm_sec = 0;
    midnight.tm_min = 0;
    midnight.tm_hour = 0;
    const auto next = system_clock::from_time_t(std::mktime(&midnight)) + offset;
    return next < now ? next + std::chrono::hours(24) : next;
}

std::chrono::system_clock::time_point TimerClock::now() const { return std::chrono::system_clock::now(); }

std::cv_status TimerClock::waitFor(common::ConditionVariable& condition, common::Mutex& mutex,
                                   std::chrono::nanoseconds duration) const {
    return condition.waitFor(mutex, duration);  // steady clock: setting the wall clock back must not stall it
}

const TimerClock& TimerClock::real() {
    static const TimerClock clock;
    return clock;
}

ProvisioningTimer::ProvisioningTimer(std::shared_ptr<propertyapi::IPropertyApi> properties, const TimerClock& clock)
    : clock_(clock), properties_(std::move(properties)) {}

ProvisioningTimer::~ProvisioningTimer() { ProvisioningTimer::stop(); }

void ProvisioningTimer::start(unsigned period) {
    const common::LockGuard control(control_);
    stopThread();
    {
        const common::LockGuard lock(mutex_);
        nextTime_ = {};
        scheduleNext(period);
        period_ = period;
        running_ = true;
    }
    thread_ = std::thread([this] { run(); });
}

void ProvisioningTimer::stop() {
    const common::LockGuard control(control_);
    stopThread();
}

void ProvisioningTimer::stopThread() {
    if (!thread_.joinable()) return;
    {
        const common::LockGuard lock(mutex_);
        running_ = false;
    }
    wake_.notifyAll();
    thread_.join();
    thread_ = std::thread();
}

void ProvisioningTimer::run() {
    const common::LockGuard lock(mutex_);
    while (running_) {
        const std::cv_status woken = clock_.waitFor(wake_, mutex_, exactWait_);
        if (woken == std::cv_status::no_timeout || !running_) {
            dbg::Debug::info() << "Provisioning timer: Abort" << std::endl;
            continue;
        }
        dbg::Debug::info() << "Provisioning timer: Provisioning ready to go" << std::endl;
        requestProvisioning();
        dbg::Debug::info() << "Provisioning timer: Preparing to restart timer" << std::endl;
        scheduleNext(period_);
    }
}

void ProvisioningTimer::requestProvisioning() {
    try {
        properties_->set(constants.provisioningStateKey, constants.requestWord);
    } catch (...) {  // not repeated: the next time comes by itself
    }
}

void ProvisioningTimer::scheduleNext(unsigned period) {
    if (period != 0) {
        schedulePeriodic(period);
    } else {
        scheduleNight();
    }
    dbg::Debug::info() << "Next provisioning time is at " << quote(readableTime(nextTime_)) << std::endl;
    dbg::Debug::info() << "That means you have to wait " << waitDuration_.count() << " seconds." << std::endl;
}

void ProvisioningTimer::schedulePeriodic(unsigned period) {
    dbg::Debug::info() << "Setting periodical Provisioning" << std::endl;
    waitDuration_ = std::chrono::seconds(period);
    exactWait_ = waitDuration_;
    nextTime_ = clock_.now() + waitDuration_;
}

void ProvisioningTimer::scheduleNight() {
    dbg::Debug::info() << "Setting provisioning for night" << std::endl;
    const auto next = nextNight(scheduleReference(), nightOffset());
    exactWait_ = next - clock_.now();
    waitDuration_ = std::chrono::duration_cast<std::chrono::seconds>(exactWait_);
    nextTime_ = next;
}

// Now, or just after the last scheduled time if the wall clock has not quite reached it yet: the same night must not be
// scheduled twice.
std::chrono::system_clock::time_point ProvisioningTimer::scheduleReference() const {
    const auto now = clock_.now();
    const bool justEnded = now <= nextTime_ && nextTime_ - now < clockTolerance;
    return justEnded ? nextTime_ + std::chrono::nanoseconds(1) : now;
}

}  // namespace zav
