#include "Delivery.h"

#include <exception>
#include <utility>

#include "Thread.h"
#include "debug/Debug.h"

namespace ipc {

Delivery::Delivery(std::string name, IIPCCallback& callback) : name_(std::move(name)), callback_(callback) {
    thread_ = startThread("ipc-delivery", [this] { run(); });
    threadId_ = thread_.get_id();
}

Delivery::~Delivery() { stop(); }

void Delivery::messageArrived(std::string_view topic, std::string_view content) { put(Kind::message, topic, content); }

void Delivery::connectionLost(std::string_view cause) { put(Kind::lost, cause, {}); }

void Delivery::deliveryComplete(std::string_view topic) { put(Kind::complete, topic, {}); }

void Delivery::put(Kind kind, std::string_view text, std::string_view content) {
    bool warn = false;
    {
        const common::LockGuard lock(mutex_);
        if (stopping_) return;
        items_.push_back({kind, std::string(text), std::string(content)});
        bytes_ += text.size() + content.size();
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
    while (items_.size() > 1 && (items_.size() > maxItems || bytes_ > maxBytes)) {
        bytes_ -= items_.front().text.size() + items_.front().content.size();
        items_.pop_front();
        overflowing_ = true;
    }
    return overflowing_ && !wasOverflowing;
}

void Delivery::run() {
    const common::LockGuard lock(mutex_);
    for (;;) {
        changed_.wait(mutex_, [this]() REQUIRES(mutex_) { return stopping_ || !items_.empty(); });
        if (stopping_) return;
        const Item item = take();
        const common::UnlockGuard unlocked(mutex_);
        call(item);
    }
}

Delivery::Item Delivery::take() {
    Item item = std::move(items_.front());
    items_.pop_front();
    bytes_ -= item.text.size() + item.content.size();
    // Warn about the next overflow only once the queue has been half empty.
    if (items_.size() < maxItems / 2 && bytes_ < maxBytes / 2) overflowing_ = false;
    return item;
}

void Delivery::call(const Item& item) noexcept {
    try {
        switch (item.kind) {
            case Kind::message:
                callback_.messageArrived(item.text, item.content);
                break;
            case Kind::lost:
                callback_.connectionLost(item.text);
                break;
            case Kind::complete:
                callback_.deliveryComplete(item.text);
                break;
        }
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
        items_.clear();
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
