// Requests a provisioning pass periodically or once a night by writing "request" to "State.Provisioning", like any
// other requester.
//
// Threads: any but the timer's own may call start and stop. The timer thread writes the property with the mutex held.
#pragma once

#include <chrono>
#include <memory>
#include <thread>

#include "common/ThreadSafety.h"
#include "propertyapi/IPropertyApi.h"

namespace zav {

/// Time source of the timer; replaced in tests.
class TimerClock {
 public:
    virtual ~TimerClock() = default;
    virtual std::chrono::system_clock::time_point now() const;

    /// Waits for the condition, for at most `duration`.
    virtual std::cv_status waitFor(common::ConditionVariable& condition, common::Mutex& mutex,
                                   std::chrono::nanoseconds duration) const REQUIRES(mutex);

    static const TimerClock& real();
};

/// Night offset: 13995 s (03:53:15) on every phone, because its seed is the name of the MAC address property, not its
/// value. Kept on purpose: operators and servers rely on that time.
std::chrono::seconds nightOffset();

/// Local midnight at the start of today plus the offset, or exactly 24 h later if that is before `now`.
std::chrono::system_clock::time_point nextNight(std::chrono::system_clock::time_point now, std::chrono::seconds offset);

class ProvisioningTimer {
 public:
    explicit ProvisioningTimer(std::shared_ptr<propertyapi::IPropertyApi> properties,
                               const TimerClock& clock = TimerClock::real());
    virtual ~ProvisioningTimer();

    /// Restarts the timer from now. `period` is in seconds, 0 for once a night. Throws std::system_error if the thread
    /// cannot be started.
    virtual void start(unsigned period);

    /// Stops and joins the timer thread, if it runs.
    virtual void stop();

 protected:
    virtual void run();
    virtual void schedulePeriodic(unsigned period) REQUIRES(mutex_);

 private:
    void scheduleNight() REQUIRES(mutex_);
    void scheduleNext(unsigned period) REQUIRES(mutex_);
    void stopThread() REQUIRES(control_);
    void requestProvisioning();
    std::chrono::system_clock::time_point scheduleReference() const REQUIRES(mutex_);

    const TimerClock& clock_;
    common::Mutex control_;  // serialises start and stop

    std::chrono::system_clock::time_point nextTime_ GUARDED_BY(mutex_);
    std::chrono::seconds waitDuration_ GUARDED_BY(mutex_){-1};  // exactWait_ in whole seconds, for the log
    std::chrono::nanoseconds exactWait_ GUARDED_BY(mutex_){0};
    common::ConditionVariable wake_;
    std::thread thread_ GUARDED_BY(control_);
    unsigned period_ GUARDED_BY(mutex_) = 0;
    common::Mutex mutex_;
    bool running_ GUARDED_BY(mutex_) = false;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zav
