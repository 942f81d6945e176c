// Requests to the property service, one a line: "get {…}", "set {…}", "list {…}", "describe {…}", "import {…}". All are
// handled as one batch, then the service restarts with what it has stored. "failing KEY" makes the store refuse that
// key.
#include <algorithm>
#include <map>

#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"
#include "propertyprotocol/Utf8.h"
#include "service/PropertyService.h"
#include "unit/services/property-service/FakeStore.h"

namespace fuzz {

namespace {

using namespace propertyservice;
using Requests = std::vector<ipc::ServiceRequest>;

const char catalogueText[] = R"({"version": 1, "keys": {
    "System.Name": {"type": "text", "maxLength": 20, "default": "phone", "description": "d"},
    "System.Port": {"type": "integer", "min": 1, "max": 9, "default": "5", "description": "d"},
    "System.Flag": {"type": "boolean", "default": "0", "description": "d"},
    "System.Server": {"type": "url", "default": "", "description": "d"},
    "System.Mode": {"type": "enum", "values": ["a", "b"], "default": "a", "description": "d"},
    "System.Serial": {"type": "text", "default": "42", "readOnly": true, "description": "d"},
    "System.Password": {"type": "secret", "maxLength": 8, "default": "start", "description": "s"},
    "System.Uptime": {"type": "integer", "default": "0", "volatile": true, "description": "d"},
    "State.Trigger": {"type": "text", "refusedSources": ["file"], "default": "", "description": "d"},
    "Keys.{0-2}.Label": {"type": "text", "default": "-", "description": "d"}
}})";

struct Input {
    Requests requests;
    std::string failingKey;
};

Input read(std::string text) {
    const std::map<std::string, std::string> topics{{"get", propertyprotocol::getTopic},
                                                    {"set", propertyprotocol::setTopic},
                                                    {"list", propertyprotocol::listTopic},
                                                    {"describe", propertyprotocol::describeTopic},
                                                    {"import", propertyprotocol::importTopic}};
    Input input;
    while (!text.empty()) {
        const auto [line, rest] = splitLine(text);
        const auto blank = std::min(line.find(' '), line.size());
        const std::string argument = line.substr(std::min(blank + 1, line.size()));
        const auto topic = topics.find(line.substr(0, blank));
        if (topic != topics.end()) {
            input.requests.push_back({topic->second, argument, "me/reply", "c", 0});
        } else if (line.substr(0, blank) == "failing") {
            input.failingKey = argument;
        }
        text = rest;
    }
    return input;
}

void checkMessage(const ipc::OutgoingMessage& message) {
    Json::Value parsed;
    promise(propertyprotocol::countJsonTokens(message.payload).has_value(), "a message is strict JSON");
    promise(!propertyprotocol::parseJson(message.payload, parsed) && parsed.isObject(), "a message is an object");
    if (message.topic == "me/reply") return;
    promise(propertyprotocol::isChangeTopic(message.topic), "what is not an answer is a change");
    propertyprotocol::Change change;
    promise(propertyprotocol::readChange(message.payload, change), "a change can be read");
    promise(propertyprotocol::isUtf8WithoutNul(change.value), "a value is UTF-8 without a NUL");
}

/// Keys and values, without those that a restart resets.
std::map<std::string, std::string> settingsOf(PropertyService& service) {
    Json::Value page;
    const auto answers = service.handle({{propertyprotocol::listTopic, "{\"prefix\":\"\"}", "me/reply", "c", 0}});
    promise(answers.size() == 1 && !propertyprotocol::parseJson(answers[0].payload, page), "the service can list");
    std::map<std::string, std::string> settings;
    for (const Json::Value& each : page["properties"]) {
        const std::string key = each["param"].asString();
        if (!isState(key) && key != "System.Uptime") settings[key] = each["value"].asString();
    }
    return settings;
}

}  // namespace

void property_request(const std::string& input) {
    static const Catalogue catalogue = Catalogue::parse(catalogueText, "c.json");
    const auto [requests, failingKey] = read(input);
    FakeStore store;
    store.failingKey = failingKey;
    PropertyService service(catalogue, store);
    std::size_t answers = 0;
    for (const ipc::OutgoingMessage& message : service.handle(requests)) {
        checkMessage(message);
        answers += message.topic == "me/reply" ? 1U : 0U;
    }
    promise(answers == requests.size(), "each request has one answer");
    promise(store.values.count(failingKey) == 0, "what the store refused is not stored");

    const auto settings = settingsOf(service);
    promise(settings.size() == 10, "no setting is lost");
    for (const CatalogueKey& each : catalogue.keys()) {
        const auto found = settings.find(std::string(each.key));
        promise(found == settings.end() || each.definition->rule(found->second).empty(), "the catalogue holds");
    }
    PropertyService restarted(catalogue, store);
    promise(settingsOf(restarted) == settings, "settings survive a restart");
}

}  // namespace fuzz
