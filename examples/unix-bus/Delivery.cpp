#include "Delivery.h"

#include <exception>
#include <utility>

#include "debug/Debug.h"

namespace unixbus {

namespace {
constexpr std::size_t maxCalls = 10000;
}

Delivery::Delivery(ipc::IIPCCallback& target) : target_(target) {
    thread_ = std::thread([this] { run(); });
}

void Delivery::add(std::function<void(ipc::IIPCCallback&)> call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    calls_.push_back(std::move(call));
    const bool full = calls_.size() > maxCalls;
    if (full) calls_.pop_front();
    if (full && !std::exchange(overflowing_, true)) {
        dbg::Debug::warning() << "Messages arrive faster than they are handled; dropping the oldest" << std::endl;
    }
    changed_.notify_one();
}

void Delivery::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !calls_.empty(); });
        if (stopping_) return;
        const auto call = std::move(calls_.front());
        calls_.pop_front();
        if (calls_.empty()) overflowing_ = false;
        lock.unlock();
        try {
            call(target_);
        } catch (const std::exception& error) {
            dbg::Debug::error() << "Exception in a callback: " << error.what() << std::endl;
        } catch (...) {
            dbg::Debug::error() << "Unknown exception in a callback" << std::endl;
        }
        lock.lock();
    }
}

void Delivery::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        calls_.clear();
    }
    changed_.notify_one();
    const std::lock_guard<std::mutex> lock(joining_);
    if (thread_.joinable()) thread_.join();
}

}  // namespace unixbus
