// The calls for one callback object that wait for their turn, and the thread that makes them.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "ipc/IIPCCallback.h"

namespace unixbus {

class Delivery {
 public:
    explicit Delivery(ipc::IIPCCallback& target);
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
    ~Delivery() { stop(); }

    ipc::IIPCCallback& target() const { return target_; }
    bool isOwnThread() const { return std::this_thread::get_id() == thread_.get_id(); }

    /// Beyond 10,000 the oldest call is dropped.
    void add(std::function<void(ipc::IIPCCallback&)> call);

    /// Drops what waits, and waits for the call that runs. Not on its own thread.
    void stop();

 private:
    void run();

    ipc::IIPCCallback& target_;
    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<std::function<void(ipc::IIPCCallback&)>> calls_;
    bool overflowing_ = false;
    bool stopping_ = false;
    std::mutex joining_;
    std::thread thread_;
};

}  // namespace unixbus
