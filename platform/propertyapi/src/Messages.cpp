#include "Messages.h"

#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Utf8.h"

namespace propertyapi {

namespace {

namespace errors = propertyprotocol::errors;
using propertyprotocol::jsonObject;
using propertyprotocol::textMember;

[[noreturn]] void throwMalformed(const std::string& key) {
    throw PropertyProtocolException(errorText(key, "the answer is malformed"));
}

[[noreturn]] void throwError(const std::string& key, const std::string& code, const std::string& reason) {
    const auto text = [&](const std::string& meaning) {
        return errorText(key, meaning + (reason.empty() ? "" : ": " + reason));
    };
    if (code == errors::notFound) throw PropertyNotFoundException(text("unknown key"));
    if (code == errors::invalidValue) throw PropertyInvalidValueException(text("invalid value"));
    if (code == errors::readOnly) throw PropertyReadOnlyException(text("read-only"));
    if (code == errors::badRequest) throw PropertyProtocolException(text("bad request"));
    if (code == errors::storage) throw PropertyStorageException(text("cannot be stored"));
    throw PropertyException(text("error '" + code + "'"));
}

/// Parses a response; throws if it is an error or not a JSON object.
Json::Value parse(const std::string& key, const std::string& response) {
    Json::Value root;
    if (propertyprotocol::parseJson(response, root) || !root.isObject()) throwMalformed(key);
    if (root.isMember("error")) throwError(key, textMember(root, "error"), textMember(root, "reason"));
    return root;
}

}  // namespace

std::string errorText(const std::string& key, const std::string& reason) { return "Property '" + key + "': " + reason; }

std::string getRequest(const std::string& key) { return jsonObject({{"param", key}}); }

std::string setRequest(const std::string& key, const std::string& source, const std::string& value) {
    if (value.size() > propertyprotocol::maxValueBytes)
        throw PropertyInvalidValueException(errorText(key, "invalid value: over 64 KiB"));
    if (!propertyprotocol::isUtf8(value) || !propertyprotocol::isUtf8(source))
        throw PropertyInvalidValueException(errorText(key, "invalid value: not UTF-8"));
    return jsonObject({{"param", key}, {"value", value}, {"source", source}});
}

std::string listRequest(const std::string& prefix, const std::string& after) {
    return after.empty() ? jsonObject({{"prefix", prefix}}) : jsonObject({{"prefix", prefix}, {"after", after}});
}

std::string readValue(const std::string& key, const std::string& response) {
    const Json::Value root = parse(key, response);
    if (!root["value"].isString() || textMember(root, "param") != key) throwMalformed(key);
    return root["value"].asString();
}

void checkSetResponse(const std::string& key, const std::string& response) {
    const Json::Value root = parse(key, response);
    if (textMember(root, "param") != key) throwMalformed(key);
}

PropertyPage readPage(const std::string& prefix, const std::string& response) {
    const Json::Value root = parse(prefix, response);
    const Json::Value& properties = root["properties"];
    if (!properties.isArray()) throwMalformed(prefix);
    PropertyPage page;
    page.properties.reserve(properties.size());
    for (const Json::Value& each : properties) {
        if (!each.isObject() || !each["param"].isString() || !each["value"].isString()) throwMalformed(prefix);
        page.properties.push_back({each["param"].asString(), each["value"].asString()});
    }
    page.next = textMember(root, "next");
    return page;
}

}  // namespace propertyapi
