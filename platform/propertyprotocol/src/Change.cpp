#include "propertyprotocol/Change.h"

#include <json/reader.h>
#include <json/value.h>

#include <memory>

#include "propertyprotocol/Json.h"

namespace propertyprotocol {

namespace {

std::string textOf(const Json::Value& object, const char* name) {
    const Json::Value& member = object[name];
    return member.isString() ? member.asString() : std::string();
}

bool parse(const std::string& message, Json::Value& object) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(message.data(), message.data() + message.size(), &object, nullptr) && object.isObject();
    } catch (const Json::Exception&) {  // nested too deeply
        return false;
    }
}

}  // namespace

std::string changeMessage(const std::string& param, const std::string& value, const std::string& source) {
    std::string json;
    json.reserve(param.size() + value.size() + source.size() + 48);
    appendMember(json, "param", param);
    appendMember(json, "value", value);
    appendMember(json, "source", source);
    json += '}';
    return json;
}

bool readChange(const std::string& message, Change& change) {
    Json::Value parsed;
    if (!parse(message, parsed)) return false;
    const Json::Value& object = parsed;
    if (!object["param"].isString()) return false;
    change = {textOf(object, "param"), textOf(object, "value"), textOf(object, "source")};
    return true;
}

}  // namespace propertyprotocol
