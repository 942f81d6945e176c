#include "Definitions.h"

#include "Output.h"
#include "common/UrlSyntax.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

std::string textOf(const Json::Value& value) { return value.isString() ? value.asString() : std::string(); }

std::string listed(const Json::Value& values, const char* quote) {
    std::string text;
    for (const Json::Value& value : values) text += (text.empty() ? "" : ", ") + (quote + textOf(value) + quote);
    return text;
}

std::string limitsOf(const Json::Value& json) {
    std::string text;
    const auto add = [&text](const std::string& limit) { text += (text.empty() ? "" : ", ") + limit; };
    const bool lower = json["min"].isInt64();
    const bool upper = json["max"].isInt64();
    if (lower) add("from " + std::to_string(json["min"].asInt64()));
    if (upper) text += (lower ? " to " : "to ") + std::to_string(json["max"].asInt64());
    if (json["values"].isArray()) add("one of " + listed(json["values"], "\""));
    if (json["schemes"].isArray()) add("beginning with " + listed(json["schemes"], ""));
    if (json["pattern"].isString()) add("matching " + json["pattern"].asString());
    if (json["maxLength"].isInt64()) add("at most " + std::to_string(json["maxLength"].asInt64()) + " bytes");
    return text;
}

Definition read(const Json::Value& json) {
    return {textOf(json["type"]),
            textOf(json["default"]),
            textOf(json["description"]),
            json["readOnly"] == true,
            json["volatile"] == true,
            limitsOf(json),
            listed(json["refusedSources"], "\"")};
}

}  // namespace

Definition definitionOf(Session& session, const std::string& key) {
    return read(session.request(propertyprotocol::describeTopic, toObject({{"param", key}})));
}

Definitions definitionsOf(Session& session, const std::string& prefix) {
    const Json::Value request = toObject({{"prefix", prefix}});
    Definitions definitions;
    for (const Json::Value& json : session.requestAll(propertyprotocol::describeTopic, request, "definitions")) {
        definitions.emplace(textOf(json["param"]), read(json));
    }
    return definitions;
}

std::string maskedValue(const Definitions& definitions, const std::string& key, const std::string& value) {
    const auto definition = definitions.find(key);
    const bool secret = definition != definitions.end() && definition->second.isSecret();
    if (secret && !value.empty()) return "***";
    const bool url = definition != definitions.end() && definition->second.type == "url";
    return url || value.find("://") != std::string::npos ? common::withoutPassword(value) : value;
}

}  // namespace zavctl
