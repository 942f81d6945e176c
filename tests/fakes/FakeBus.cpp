#include "fakes/FakeBus.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>

#include "ipc/IPCException.h"

namespace fakes {

namespace {

bool matches(const std::string& filter, const std::string& topic) {
    if (filter.empty() || filter.back() != '#') return filter == topic;
    const std::string prefix = filter.substr(0, filter.size() - 1);
    return topic.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

void FakeBus::record(const std::string& call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
    called_.notify_all();
    for (const auto& [beginning, reason] : failures_) {
        if (call.compare(0, beginning.size(), beginning) == 0) throw ipc::IPCException(reason);
    }
}

void FakeBus::connect(const std::string& host) { record("connect " + host); }

void FakeBus::disconnect() {
    record("disconnect");
    const std::lock_guard<std::mutex> lock(mutex_);
    subscriptions_.clear();
}

void FakeBus::subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback) {
    record("subscribe " + topicFilter);
    const std::lock_guard<std::mutex> lock(mutex_);
    subscriptions_.emplace_back(topicFilter, &callback);
}

void FakeBus::publish(const std::string& topic, const std::string& payload, int qualityOfService) {
    record("publish " + topic + " " + payload + " " + std::to_string(qualityOfService));
}

void FakeBus::watchPresence(const std::string& statusTopic) { record("watchPresence " + statusTopic); }

std::string FakeBus::request(const std::string& topic, const std::string& payload, const std::string&,
                             std::chrono::milliseconds) {
    record("request " + topic + " " + payload);
    throw ipc::IPCOfflineException("nobody answers on this bus");
}

std::size_t FakeBus::deliver(const std::string& topic, const std::string& content) {
    std::vector<ipc::IIPCCallback*> callbacks;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [filter, callback] : subscriptions_) {
            if (matches(filter, topic)) callbacks.push_back(callback);
        }
    }
    for (ipc::IIPCCallback* callback : callbacks) callback->messageArrived(topic, content);
    return callbacks.size();
}

std::size_t FakeBus::deliver(const std::string& topic, const std::string& key, const std::string& value) {
    Json::Value message;
    message["param"] = key;
    message["value"] = value;
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return deliver(topic, Json::writeString(compact, message));
}

void FakeBus::failOn(const std::string& call, const std::string& reason) {
    const std::lock_guard<std::mutex> lock(mutex_);
    failures_[call] = reason;
}

std::vector<std::string> FakeBus::calls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

std::size_t FakeBus::count(const std::string& call) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), call));
}

bool FakeBus::waitFor(const std::string& call, std::size_t times, std::chrono::milliseconds patience) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return called_.wait_for(lock, patience, [&] {
        return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), call)) >= times;
    });
}

}  // namespace fakes
