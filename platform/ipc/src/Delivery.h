// A bounded queue and the thread that delivers it to a callback object. Each subscription has one, and each callback
// object has one for connection events.
//
// Threads: the network thread enqueues and never waits; only the delivery's own thread calls the callback.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "common/ThreadSafety.h"
#include "ipc/IIPCCallback.h"

namespace ipc {

class Delivery {
 public:
    /// Beyond either limit the oldest calls are dropped; the newest is always kept.
    static constexpr std::size_t maxItems = 10000;
    static constexpr std::size_t maxBytes = std::size_t{32} * 1024 * 1024;

    /// `name` names the queue in log lines. Starts the thread; throws IPCException if it cannot.
    Delivery(std::string name, IIPCCallback& callback);
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
    ~Delivery() { stop(); }

    void messageArrived(std::string_view topic, std::string_view content);
    void connectionLost(std::string_view cause);
    void deliveryComplete(std::string_view topic);

    /// Drops queued calls and waits for a running one. Must not be called on the delivery's own thread.
    void stop();

    /// The same without waiting, so that several queues can stop in parallel.
    void requestStop();

    bool isOwnThread() const { return std::this_thread::get_id() == threadId_; }
    IIPCCallback& callback() const { return callback_; }

 private:
    struct Call {
        std::function<void()> run;
        std::size_t bytes;
    };

    void put(std::function<void()> run, std::size_t bytes);
    /// Returns whether an overflow has just begun.
    bool trim() REQUIRES(mutex_);
    void run();
    Call take() REQUIRES(mutex_);
    void execute(const Call& call) noexcept;

    const std::string name_;
    IIPCCallback& callback_;

    common::Mutex mutex_;
    common::ConditionVariable changed_;
    std::deque<Call> calls_ GUARDED_BY(mutex_);
    std::size_t bytes_ GUARDED_BY(mutex_) = 0;
    bool overflowing_ GUARDED_BY(mutex_) = false;
    bool stopping_ GUARDED_BY(mutex_) = false;

    common::Mutex joining_;
    std::thread thread_ GUARDED_BY(joining_);
    std::thread::id threadId_;  // constant after construction
};

}  // namespace ipc
