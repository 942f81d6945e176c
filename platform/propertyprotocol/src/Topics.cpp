#include "propertyprotocol/Topics.h"

#include <algorithm>

namespace propertyprotocol {

namespace {

constexpr std::string_view service = serviceName;
constexpr std::string_view changePrefix = "prop-service-";

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// Not std::tolower, which depends on the locale.
std::string inLowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    });
    return text;
}

}  // namespace

std::string changeTopic(std::string_view key) {
    std::string topic = inLowerCase(std::string(key.substr(0, key.find('.'))));
    topic.reserve(changePrefix.size() + topic.size() + 1 + key.size());
    return topic.insert(0, changePrefix).append("/").append(key);
}

std::string changeFilter(const std::string& group) { return std::string(changePrefix) + inLowerCase(group) + "/#"; }

bool isChangeTopic(const std::string& topic) { return startsWith(topic, changePrefix); }

bool isServiceTopic(const std::string& topic) {
    if (!startsWith(topic, service)) return false;
    return topic.size() == service.size() || topic[service.size()] == '/' || isChangeTopic(topic);
}

}  // namespace propertyprotocol
