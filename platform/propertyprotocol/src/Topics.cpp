#include "propertyprotocol/Topics.h"

#include <algorithm>

namespace propertyprotocol {

namespace {

constexpr char changePrefix[] = "prop-service-";

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

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
    topic.reserve(sizeof changePrefix + topic.size() + key.size());
    return topic.insert(0, changePrefix).append("/").append(key);
}

std::string changeFilter(const std::string& group) { return changePrefix + inLowerCase(group) + "/#"; }

bool isChangeTopic(const std::string& topic) { return startsWith(topic, changePrefix); }

bool isServiceTopic(const std::string& topic) {
    return topic == serviceName || startsWith(topic, std::string(serviceName) + "/") || isChangeTopic(topic);
}

}  // namespace propertyprotocol
