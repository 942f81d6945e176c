// Follows one provisioning pass by the changes that its properties go through.
//
// The pass that counts begins after our own request was accepted: a pass that was under way already publishes its
// result too, and ours begins right after it. So a result counts at once when a pass began after the request, and
// otherwise only when none begins within a moment. While another pass is under way the lock of the screen says nothing:
// a redirect in it locks the screen again. Without the broker or the property service there is nothing to follow: the
// wait ends at once. Changes and presence come on delivery threads; one other thread waits.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "ipc/IIPCCallback.h"

namespace zavctl {

class PassFollower final : public ipc::IIPCCallback {
 public:
    using Clock = std::chrono::steady_clock;

    /// `writer` is the source of our own request; `settling` is how long a result without a beginning is held back.
    PassFollower(std::string writer, std::chrono::milliseconds settling);

    void connectionLost(const std::string& cause) override;
    void messageArrived(const std::string& topic, const std::string& content) override;
    void deliveryComplete(const std::string& topic) override;

    /// Another pass is running, as seen before our request: what begins before its result is part of it.
    void expectEarlierResult();

    /// The result once the pass has ended; nothing when `until` comes first, or once the pass was lost.
    std::optional<std::string> waitUntil(Clock::time_point until);

    /// A result that is still held back.
    std::optional<std::string> heldBack() const;

    bool passBegan() const;

    /// Another pass is still running, so that ours has not begun.
    bool isBehindEarlierPass() const;

    /// Why the pass can no longer be followed: the broker or the property service went away. Empty while it can.
    std::string lost() const;

 private:
    void lose(const std::string& reason);

    const std::string writer_;
    const std::chrono::milliseconds settling_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // guarded by mutex_
    bool requested_ = false;
    bool earlierPass_ = false;
    bool passBegan_ = false;
    std::string lost_;
    std::optional<std::string> result_;
    Clock::time_point counts_{};  // when result_ counts
};

}  // namespace zavctl
