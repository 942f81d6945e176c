// A phone without a bus: fake properties that publish their changes to all subscribers.
#pragma once

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "fakes/FakeProperties.h"
#include "ipc/IPCException.h"

namespace zavctl {

class FakeBus final : public ipc::IIPCClient {
 public:
    void connect(const std::string& host) override {
        hosts.push_back(host);
        if (away) throw ipc::IPCException("Cannot connect to the broker at " + host);
    }
    void disconnect() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        subscriptions_.clear();
        ++disconnects;
    }
    void subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        subscriptions_.emplace_back(topicFilter, &callback);
    }
    void publish(const std::string& topic, const std::string&, int) override {
        published.push_back(topic);
        if (onPublish) onPublish(topic);
    }
    void watchPresence(const std::string&) override {}
    std::string request(const std::string& topic, const std::string&, const std::string&,
                        std::chrono::milliseconds) override {
        return topic == "prop-service/describe" ? descriptions : std::string();
    }

    std::vector<std::string> filters() {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> all;
        for (const auto& [filter, callback] : subscriptions_) all.push_back(filter);
        return all;
    }

    /// Calls the subscribers of exactly this topic.
    void answer(const std::string& topic) {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [filter, callback] : subscriptions_) {
            if (filter == topic) callback->messageArrived(topic, "{}");
        }
    }
    /// Calls every subscriber, whatever its filter.
    void deliver(const std::string& topic, const std::string& content) {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [filter, callback] : subscriptions_) callback->messageArrived(topic, content);
    }
    void cut() {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [filter, callback] : subscriptions_) callback->connectionLost("cut");
    }

    bool away = false;
    std::string descriptions = R"({"definitions":[]})";
    std::vector<std::string> hosts;
    int disconnects = 0;
    std::vector<std::string> published;                       // topics
    std::function<void(const std::string& topic)> onPublish;  // what the other clients do

 private:
    std::mutex mutex_;
    std::vector<std::pair<std::string, ipc::IIPCCallback*>> subscriptions_;  // guarded by mutex_
};

inline std::string changeText(const std::string& key, const std::string& value, const std::string& source) {
    Json::Value object;
    object["param"] = key;
    object["value"] = value;
    object["source"] = source;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, object);
}

class Phone {
 public:
    explicit Phone(fakes::FakeProperties::Values values)
        : bus(std::make_shared<FakeBus>()), properties(std::make_shared<fakes::FakeProperties>(std::move(values))) {
        properties->onWrite([this](const fakes::PropertyWrite& write) { publish(write); });
    }

    void publish(const fakes::PropertyWrite& write) {
        bus->deliver("prop-service-x/" + write.key, changeText(write.key, write.value, write.source));
    }

    ExitCode run(const std::vector<std::string>& arguments) {
        return zavctl::run(
            arguments, Environment{out, err, terminal, errTerminal, stopSignal, [this] { catching = true; },
                                   [this](const std::string&) { return bus; },
                                   [this](const std::shared_ptr<ipc::IIPCClient>&) { return properties; }, hintAfter,
                                   progressEvery, now, [this] { return columns; }});
    }

    Json::Value json() const {
        Json::Value value;
        const std::string text = out.str();
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        std::string errors;
        reader->parse(text.data(), text.data() + text.size(), &value, &errors);
        return value;
    }

    const std::shared_ptr<FakeBus> bus;
    const std::shared_ptr<fakes::FakeProperties> properties;
    std::ostringstream out;
    std::ostringstream err;
    bool terminal = false;     // standard output
    std::size_t columns = 80;  // of the terminal
    bool errTerminal = false;  // standard error
    bool catching = false;
    std::chrono::milliseconds hintAfter{2000};
    std::chrono::milliseconds progressEvery{10000};
    std::function<std::chrono::steady_clock::time_point()> now = &std::chrono::steady_clock::now;
    common::StopSignal stopSignal;
};

}  // namespace zavctl
