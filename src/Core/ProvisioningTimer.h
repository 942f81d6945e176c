// Requests a provisioning pass periodically or once a night by writing "request" to "State.Provisioning", like any
// other requester.
//
// Threads: any but the timer's own may call start and stop. The timer thread writes the property with the mutex held.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "propertyapi/IPropertyApi.h"

namespace zav {

/// Time source of the timer; replaced in tests.
class TimerClock {
 public:
    virtual ~TimerClock() = default;
    virtual std::chrono::system_clock::time_point now() const;

    /// Waits for the condition, for at most `duration`.
    virtual std::cv_status waitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                                   std::chrono::nanoseconds duration) const;

    static const TimerClock& real();
};

/// Night offset: 13995 s (03:53:15) on every phone, because its seed is the name of the MAC address property, not its
/// value.
std::chrono::seconds nightOffset();

/// Local midnight at the start of today plus the offset, or exactly 24 h later if that is before `now`.
std::chrono::system_clock::time_point nextNight(std::chrono::system_clock::time_point now, std::chrono::seconds offset);

class ProvisioningTimer {
 public:
    explicit ProvisioningTimer(std::shared_ptr<propertyapi::IPropertyApi> properties,
                               const TimerClock& clock = TimerClock::real());
    virtual ~ProvisioningTimer();
    ProvisioningTimer(const ProvisioningTimer&) = delete;
    ProvisioningTimer& operator=(const ProvisioningTimer&) = delete;

    /// Restarts the timer from now. `period` is in seconds, 0 for once a night. Throws std::system_error if the thread
    /// cannot be started.
    virtual void start(unsigned period);

    /// Stops and joins the timer thread, if it runs.
    virtual void stop();

 protected:
    virtual void run();
    virtual void schedulePeriodic(unsigned period);

 private:
    void scheduleNight();
    void scheduleNext(unsigned period);
    void stopThread();
    void requestProvisioning();
    std::chrono::system_clock::time_point scheduleReference() const;

    const TimerClock& clock_;
    std::mutex control_;  // serialises start and stop

    std::chrono::system_clock::time_point nextTime_;  // guarded by mutex_, like the members below except thread_
    std::chrono::seconds waitDuration_{-1};           // exactWait_ in whole seconds, for the log
    std::chrono::nanoseconds exactWait_{0};
    std::condition_variable wake_;
    std::thread thread_;  // guarded by control_
    unsigned period_ = 0;
    std::mutex mutex_;
    bool running_ = false;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zav
