// Asks for a provisioning pass when it is due, every period or once a night, by writing "request" to
// "State.Provisioning": the rest of the daemon reacts to that as to any other request.
//
// Threads: start and stop are called by the main thread and the bus delivery thread (never by the timer's own); one
// timer thread, which writes the property with the mutex held.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "propertyapi/IPropertyApi.h"

namespace zav {

/// The timer's view of time: tests put their own in its place.
class TimerClock {
 public:
    virtual ~TimerClock() = default;
    virtual std::chrono::system_clock::time_point now() const;

    /// Waits on the condition, `duration` at most.
    virtual std::cv_status waitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                                   std::chrono::nanoseconds duration) const;

    static const TimerClock& real();
};

class ProvisioningTimer {
 public:
    explicit ProvisioningTimer(std::shared_ptr<propertyapi::IPropertyApi> properties,
                               const TimerClock& clock = TimerClock::real());
    virtual ~ProvisioningTimer();
    ProvisioningTimer(const ProvisioningTimer&) = delete;
    ProvisioningTimer& operator=(const ProvisioningTimer&) = delete;

    /// Restarts the timer from now; `period` in seconds, 0 for once a night. Throws std::system_error when no thread
    /// can be started.
    virtual void start(unsigned period);

    /// Ends the timer thread and waits for its end; does nothing when it is not running.
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

    std::chrono::system_clock::time_point nextTime_;  // guarded by mutex_, like those below except the thread
    std::chrono::seconds waitDuration_{-1};           // whole seconds, as they are logged
    std::chrono::nanoseconds exactWait_{0};           // what is really waited, so that the wait never ends early
    std::condition_variable wake_;
    std::thread thread_;  // guarded by control_
    unsigned period_ = 0;
    std::mutex mutex_;
    bool running_ = false;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zav
