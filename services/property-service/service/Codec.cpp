#include "service/Codec.h"

#include "propertyprotocol/Json.h"
#include "propertyprotocol/Utf8.h"
#include "service/PlainObject.h"

namespace propertyservice {

namespace {

using propertyprotocol::jsonObject;

constexpr char notJson[] = "the payload is not JSON in UTF-8";

std::string textOf(const Json::Value& object, const char* member, const std::string& param, bool required) {
    const Json::Value* const value = object.find(member, member + std::char_traits<char>::length(member));
    if (value == nullptr) {
        if (!required) return {};
        throw BadRequest(param, "\"" + std::string(member) + "\" is missing");
    }
    if (!value->isString()) throw BadRequest(param, "\"" + std::string(member) + "\" must be a string");
    std::string text = value->asString();
    if (text.find('\0') != std::string::npos) {
        throw BadRequest(param, "\"" + std::string(member) + "\" must not contain a NUL");
    }
    return text;
}

std::string paramOf(const Json::Value& object) { return textOf(object, "param", "", true); }

std::string sourceOf(const Json::Value& object, const std::string& param) {
    std::string source = textOf(object, "source", param, false);
    if (source.size() > maxValueBytes) {
        throw BadRequest(param, "\"source\" is longer than " + std::to_string(maxValueBytes) + " bytes");
    }
    return source;
}

ListRequest pageOf(const Json::Value& object) {
    return {textOf(object, "prefix", "", true), textOf(object, "after", "", false), false};
}

Json::Value parse(const std::string& payload, std::size_t maxBytes = maxRequestBytes,
                  std::size_t maxTokens = maxRequestTokens) {
    if (payload.size() > maxBytes) {
        throw BadRequest("", "the payload is larger than " + std::to_string(maxBytes) + " bytes");
    }
    const std::optional<std::size_t> tokens = propertyprotocol::countJsonTokens(payload);
    if (!tokens) throw BadRequest("", notJson);
    if (*tokens > maxTokens) {
        throw BadRequest("", "the payload has more than " + std::to_string(maxTokens) + " members and elements");
    }
    Json::Value object;
    if (const auto error = propertyprotocol::parseJson(payload, object)) {
        if (error->nestedTooDeeply) throw BadRequest("", "the payload is " + error->reason);
        throw BadRequest("", error->isDuplicateMember() ? "the payload has a duplicate member" : notJson);
    }
    if (!object.isObject()) throw BadRequest("", "the payload must be a JSON object");
    return object;
}

// What is wrong with a request is for `parse` to say.
std::optional<PlainObject> readPlain(const std::string& payload) {
    return payload.size() <= maxRequestBytes ? PlainObject::read(payload) : std::nullopt;
}

}  // namespace

GetRequest readGet(const std::string& payload) {
    if (const auto plain = readPlain(payload)) {
        if (const auto key = plain->member("param")) return {std::string(*key)};
    }
    return {paramOf(parse(payload))};
}

SetRequest readSet(const std::string& payload) {
    if (const auto plain = readPlain(payload)) {
        const auto key = plain->member("param");
        const auto value = plain->member("value");
        const std::string_view source = plain->member("source").value_or("");
        if (key && value && source.size() <= maxValueBytes) {
            return {std::string(*key), std::string(*value), std::string(source)};
        }
    }
    const Json::Value object = parse(payload);
    std::string key = paramOf(object);
    std::string value = textOf(object, "value", key, true);
    std::string source = sourceOf(object, key);
    return {std::move(key), std::move(value), std::move(source)};
}

ListRequest readList(const std::string& payload) {
    const Json::Value object = parse(payload);
    const Json::Value& uncatalogued = object["uncatalogued"];
    if (uncatalogued.isNull() || uncatalogued == false) return pageOf(object);
    if (!uncatalogued.isBool()) throw BadRequest("", "\"uncatalogued\" must be true or false");
    return {"", textOf(object, "after", "", false), true};
}

DescribeRequest readDescribe(const std::string& payload) {
    const Json::Value object = parse(payload);
    if (object.isMember("param")) return {paramOf(object), {}};
    if (!object.isMember("prefix")) throw BadRequest("", "\"param\" or \"prefix\" is missing");
    return {std::nullopt, pageOf(object)};
}

ImportRequest readImport(const std::string& payload) {
    const Json::Value object = parse(payload, maxImportBytes, maxImportTokens);
    ImportRequest request{{}, sourceOf(object, ""), false};
    const Json::Value& apply = object["apply"];
    if (!apply.isNull() && !apply.isBool()) throw BadRequest("", "\"apply\" must be true or false");
    request.apply = apply.asBool();
    const Json::Value& properties = object["properties"];
    if (!properties.isArray()) throw BadRequest("", "\"properties\" is missing or not an array");
    for (const Json::Value& property : properties) {
        if (!property.isObject()) throw BadRequest("", "each of \"properties\" must be an object");
        std::string key = textOf(property, "param", "", true);
        if (property.isMember("value") && property["value"].isNull()) {
            request.writes.push_back({std::move(key), std::nullopt});
        } else {
            std::string value = textOf(property, "value", key, true);
            request.writes.push_back({std::move(key), std::move(value)});
        }
    }
    return request;
}

std::string valueAnswer(std::string_view key, std::string_view value) {
    return jsonObject({{"param", key}, {"value", value}});
}

std::string errorAnswer(const std::string& key, const char* code, const std::string& reason) {
    return jsonObject({{"param", key}, {"error", code}, {"reason", reason}});
}

std::string importAnswer(std::size_t count) { return "{\"accepted\":" + std::to_string(count) + "}"; }

std::string importRefusal(const std::vector<std::string>& errors) {
    std::string json = "{\"errors\":[";
    for (const std::string& error : errors) json += (&error == &errors.front() ? "" : ",") + error;
    return json + "]}";
}

std::string description(std::string_view key, const Definition& definition, bool isVolatile) {
    const bool hidden = definition.isSecret() && !definition.defaultValue.empty();
    std::string json = jsonObject({{"param", key},
                                   {"type", definition.type},
                                   {"default", hidden ? "***" : definition.defaultValue},
                                   {"description", definition.description}});
    json.pop_back();  // more members follow
    json += definition.readOnly ? ",\"readOnly\":true" : ",\"readOnly\":false";
    json += isVolatile ? ",\"volatile\":true" : ",\"volatile\":false";
    for (const std::string& source : definition.refusedSources) {
        json += &source == &definition.refusedSources.front() ? ",\"refusedSources\":[" : ",";
        propertyprotocol::appendString(json, source);
    }
    if (!definition.refusedSources.empty()) json += "]";
    if (!definition.limits.empty()) json += "," + definition.limits;
    return json + "}";
}

}  // namespace propertyservice
