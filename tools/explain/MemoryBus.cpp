#include "explain/MemoryBus.h"

#include <json/value.h>

#include <utility>

#include "propertyprotocol/Topics.h"

namespace explain {

namespace {

constexpr char answerTopic[] = "explain/answer";

}  // namespace

MemoryBus::MemoryBus(const propertyservice::Catalogue& catalogue, propertyservice::IStore& store)
    : service_(catalogue, store) {}

void MemoryBus::report(OnChange onChange) {
    const common::LockGuard lock(mutex_);
    onChange_ = std::move(onChange);
    keysRead_.clear();
}

std::string MemoryBus::valueOf(const std::string& key) {
    const common::LockGuard lock(mutex_);
    return valueLocked(key);
}

std::set<std::string> MemoryBus::keysRead() const {
    const common::LockGuard lock(mutex_);
    return keysRead_;
}

std::string MemoryBus::request(const std::string& topic, const std::string& payload, const std::string&,
                               std::chrono::milliseconds) {
    Json::Value request;
    propertyprotocol::parseJson(payload, request);
    const std::string key = propertyprotocol::textMember(request, "param");
    const common::LockGuard lock(mutex_);
    if (topic == propertyprotocol::getTopic) keysRead_.insert(key);
    if (topic != propertyprotocol::setTopic) return ask(topic, payload, nullptr);
    const std::string before = valueLocked(key);
    return ask(topic, payload, &before);
}

std::string MemoryBus::valueLocked(const std::string& key) {
    Json::Value answer;
    propertyprotocol::parseJson(
        ask(propertyprotocol::getTopic, propertyprotocol::jsonObject({{"param", key}}), nullptr), answer);
    return propertyprotocol::textMember(answer, "value");
}

std::string MemoryBus::ask(const std::string& topic, const std::string& payload, const std::string* before) {
    std::string answer;
    for (const ipc::OutgoingMessage& message : service_.handle({{topic, payload, answerTopic, "1", 0}})) {
        propertyprotocol::Change change;
        if (message.topic == answerTopic) {
            answer = message.payload;
        } else if (before != nullptr && onChange_ && propertyprotocol::readChange(message.payload, change)) {
            onChange_(change, *before);
        }
    }
    return answer;
}

}  // namespace explain
