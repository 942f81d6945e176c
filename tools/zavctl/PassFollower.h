// Follows one provisioning pass by the changes of its properties.
//
// Our pass begins after our request was accepted. If another pass is running then, it publishes its result first and
// our pass begins right after it. So a result counts at once if a pass began after the request; otherwise it counts
// only if no pass begins within the settle time. While another pass is running, locking the screen does not mean that
// our pass began: a redirect locks it again. If the broker or the property service goes away, the wait ends at once.
// Changes and presence arrive on delivery threads; one other thread waits.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "common/ThreadSafety.h"
#include "ipc/IIPCCallback.h"

namespace zavctl {

class PassFollower final : public ipc::IIPCCallback {
 public:
    using Clock = std::chrono::steady_clock;

    struct State {
        bool isEarlierPassRunning = false;  // ours has not begun
        bool passBegan = false;
        std::optional<std::string> result;  // does not count before the settle time is over
        std::string lostReason;             // why the pass can no longer be followed; empty while it can be
    };

    /// `source` is the source of our request; a result without a start counts after `settleTime`.
    PassFollower(std::string source, std::chrono::milliseconds settleTime);

    void connectionLost(const std::string& cause) override;
    void messageArrived(const std::string& topic, const std::string& content) override;
    void deliveryComplete(const std::string& topic) override;

    /// Call it before the request if another pass is running: a start before that pass's result belongs to that pass.
    void expectEarlierResult();

    /// Waits for the result of the pass. Returns nothing at `until`, or once the pass can no longer be followed.
    std::optional<std::string> waitUntil(Clock::time_point until);

    State state() const;

 private:
    void setLost(const std::string& reason);

    const std::string source_;
    const std::chrono::milliseconds settleTime_;

    mutable common::Mutex mutex_;
    common::ConditionVariable changed_;
    bool requested_ GUARDED_BY(mutex_) = false;
    State state_ GUARDED_BY(mutex_);
    Clock::time_point countsFrom_ GUARDED_BY(mutex_){};  // when the result begins to count
};

}  // namespace zavctl
