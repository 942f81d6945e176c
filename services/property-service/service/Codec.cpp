#include "service/Codec.h"

#include "propertyprotocol/Json.h"
#include "propertyprotocol/Utf8.h"

namespace propertyservice {

namespace {

using propertyprotocol::appendMember;

constexpr char notJson[] = "the payload is not JSON in UTF-8";

std::unique_ptr<Json::CharReader> strictReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // JSON that is not an object has an error of its own
    builder["stackLimit"] = maxNesting;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

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

}  // namespace

RequestReader::RequestReader() : reader_(strictReader()) {}

GetRequest RequestReader::get(const std::string& payload) {
    parse(payload);
    return {param()};
}

SetRequest RequestReader::set(const std::string& payload) {
    parse(payload);
    std::string key = param();
    std::string value = text("value", key, true);
    std::string writer = source(key);
    return {std::move(key), std::move(value), std::move(writer)};
}

ListRequest RequestReader::list(const std::string& payload) {
    parse(payload);
    const Json::Value& uncatalogued = object_["uncatalogued"];
    if (uncatalogued.isNull() || uncatalogued == false) return page();
    if (!uncatalogued.isBool()) throw BadRequest("", "\"uncatalogued\" must be true or false");
    return {"", text("after", "", false), true};
}

ListRequest RequestReader::page() const { return {text("prefix", "", true), text("after", "", false), false}; }

DescribeRequest RequestReader::describe(const std::string& payload) {
    parse(payload);
    if (object_.isMember("param")) return {param(), {}};
    if (!object_.isMember("prefix")) throw BadRequest("", "\"param\" or \"prefix\" is missing");
    return {std::nullopt, page()};
}

ImportRequest RequestReader::import(const std::string& payload) {
    parse(payload, maxImportBytes, maxImportTokens);
    ImportRequest request{{}, source(""), false};
    const Json::Value& apply = object_["apply"];
    if (!apply.isNull() && !apply.isBool()) throw BadRequest("", "\"apply\" must be true or false");
    request.apply = apply.asBool();
    const Json::Value& properties = object_["properties"];
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
    object_ = Json::Value();  // free it now: it may have 15 MiB
    return request;
}

void RequestReader::parse(const std::string& payload, std::size_t maxBytes, std::size_t maxTokens) {
    if (payload.size() > maxBytes) {
        throw BadRequest("", "the payload is larger than " + std::to_string(maxBytes) + " bytes");
    }
    const std::optional<std::size_t> tokens = propertyprotocol::countJsonTokens(payload);
    if (!tokens) throw BadRequest("", notJson);
    if (*tokens > maxTokens) {
        throw BadRequest("", "the payload has more than " + std::to_string(maxTokens) + " members and elements");
    }
    errors_.clear();
    bool parsed = false;
    try {
        parsed = reader_->parse(payload.data(), payload.data() + payload.size(), &object_, &errors_);
    } catch (const Json::Exception&) {
        throw BadRequest("", "the payload is nested more than " + std::to_string(maxNesting) + " deep");
    }
    if (!parsed) {
        const bool isDuplicate = errors_.find("Duplicate key") != std::string::npos;
        throw BadRequest("", isDuplicate ? "the payload has a duplicate member" : notJson);
    }
    if (!object_.isObject()) throw BadRequest("", "the payload must be a JSON object");
}

std::string RequestReader::text(const char* member, const std::string& param, bool required) const {
    return textOf(object_, member, param, required);
}

std::string RequestReader::source(const std::string& param) const {
    std::string source = text("source", param, false);
    if (source.size() > maxValueBytes) {
        throw BadRequest(param, "\"source\" is longer than " + std::to_string(maxValueBytes) + " bytes");
    }
    return source;
}

std::string RequestReader::param() const { return text("param", "", true); }

std::string valueAnswer(const std::string& key, const std::string& value) {
    std::string json;
    json.reserve(key.size() + value.size() + 32);
    appendMember(json, "param", key);
    appendMember(json, "value", value);
    json += '}';
    return json;
}

std::string errorAnswer(const std::string& key, const char* code, const std::string& reason) {
    std::string json;
    appendMember(json, "param", key);
    appendMember(json, "error", code);
    appendMember(json, "reason", reason);
    json += '}';
    return json;
}

std::string importAnswer(std::size_t count) { return "{\"accepted\":" + std::to_string(count) + "}"; }

std::string importRefusal(const std::vector<std::string>& errors) {
    std::string json = "{\"errors\":[";
    for (const std::string& error : errors) json += (&error == &errors.front() ? "" : ",") + error;
    return json + "]}";
}

std::string description(const std::string& key, const Definition& definition, bool isVolatile) {
    const bool hidden = definition.isSecret() && !definition.defaultValue.empty();
    std::string json;
    appendMember(json, "param", key);
    appendMember(json, "type", definition.type);
    appendMember(json, "default", hidden ? "***" : definition.defaultValue);
    appendMember(json, "description", definition.description);
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
