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
        const std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        items_.push_back({kind, std::string(text), std::string(content)});
        bytes_ += text.size() + content.size();
        while (items_.size() > 1 && (items_.size() > maxItems || bytes_ > maxBytes)) {
            bytes_ -= items_.front().text.size() + items_.front().content.size();
            items_.pop_front();
            warn = warn || !overflowing_;
            overflowing_ = true;
        }
    }
    changed_.notify_one();
    if (warn) {
        dbg::Debug::warning() << "Messages for \"" << name_ << "\" come faster than they are handled; the oldest go"
                              << std::endl;
    }
}

void Delivery::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !items_.empty(); });
        if (stopping_) return;
        const Item item = std::move(items_.front());
        items_.pop_front();
        bytes_ -= item.text.size() + item.content.size();
        // Half empty again: the next overflow is another one, and warns again.
        if (items_.size() < maxItems / 2 && bytes_ < maxBytes / 2) overflowing_ = false;
        lock.unlock();
        call(item);
        lock.lock();
    }
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

void Delivery::askToStop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        items_.clear();
        bytes_ = 0;
    }
    changed_.notify_one();
}

void Delivery::stop() {
    askToStop();
    const std::lock_guard<std::mutex> lock(joining_);
    if (thread_.joinable()) thread_.join();
}

}  // namespace ipc
