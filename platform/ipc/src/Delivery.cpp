#include "Delivery.h"

#include <exception>
#include <utility>

#include "System.h"
#include "debug/Debug.h"

namespace ipc {

Delivery::Delivery(std::string name, IIPCCallback& callback) : name_(std::move(name)), callback_(callback) {
    thread_ = startThread("ipc-delivery", [this] { run(); });
    threadId_ = thread_.get_id();
}

void Delivery::messageArrived(std::string_view topic, std::string_view content) {
    put([this, topic = std::string(topic),
         content = std::string(content)] { callback_.messageArrived(topic, content); },
        topic.size() + content.size());
}

void Delivery::connectionLost(std::string_view cause) {
    put([this, cause = std::string(cause)] { callback_.connectionLost(cause); }, cause.size());
}

void Delivery::deliveryComplete(std::string_view topic) {
    put([this, topic = std::string(topic)] { callback_.deliveryComplete(topic); }, topic.size());
}

void Delivery::put(std::function<void()> run, std::size_t bytes) {
    bool warn = false;
    {
        const common::LockGuard lock(mutex_);
        if (stopping_) return;
        calls_.push_back({std::move(run), bytes});
        bytes_ += bytes;
        warn = trim();
    }
    changed_.notifyOne();
    if (warn) {
        dbg::Debug::warning() << "Messages for \"" << name_
                              << "\" arrive faster than they are handled; dropping the oldest" << std::endl;
    }
}

bool Delivery::trim() {
    const bool wasOverflowing = overflowing_;
    while (calls_.size() > 1 && (calls_.size() > maxItems || bytes_ > maxBytes)) {
        bytes_ -= calls_.front().bytes;
        calls_.pop_front();
        overflowing_ = true;
    }
    return overflowing_ && !wasOverflowing;
}

void Delivery::run() {
    const common::LockGuard lock(mutex_);
    for (;;) {
        changed_.wait(mutex_, [this]() REQUIRES(mutex_) { return stopping_ || !calls_.empty(); });
        if (stopping_) return;
        const Call call = take();
        const common::UnlockGuard unlocked(mutex_);
        execute(call);
    }
}

Delivery::Call Delivery::take() {
    Call call = std::move(calls_.front());
    calls_.pop_front();
    bytes_ -= call.bytes;
    // Warn about the next overflow only once the queue has been half empty.
    if (calls_.size() < maxItems / 2 && bytes_ < maxBytes / 2) overflowing_ = false;
    return call;
}

void Delivery::execute(const Call& call) noexcept {
    try {
        call.run();
    } catch (const std::exception& error) {
        dbg::Debug::error() << "Exception in the callback for \"" << name_ << "\": " << error.what() << std::endl;
    } catch (...) {
        dbg::Debug::error() << "Unknown exception in the callback for \"" << name_ << "\"" << std::endl;
    }
}

void Delivery::requestStop() {
    {
        const common::LockGuard lock(mutex_);
        stopping_ = true;
        calls_.clear();
        bytes_ = 0;
    }
    changed_.notifyOne();
}

void Delivery::stop() {
    requestStop();
    const common::LockGuard lock(joining_);
    if (thread_.joinable()) thread_.join();
}

}  // namespace ipc
