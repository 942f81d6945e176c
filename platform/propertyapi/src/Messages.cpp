#include "Messages.h"

#include <optional>
#include <string_view>

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

bool isPlain(std::string_view text) {
    return text.find('"') == std::string_view::npos && text.find('\\') == std::string_view::npos;
}

bool passPrefix(std::string_view& text, std::string_view prefix) {
    if (text.substr(0, prefix.size()) != prefix) return false;
    text.remove_prefix(prefix.size());
    return true;
}

/// The value of a response in the property service's usual form: no escapes, no other members. Returns nothing for any
/// other response; that needs the parser, which takes a third of the instructions of a call.
std::optional<std::string_view> plainValue(const std::string& key, std::string_view rest) {
    constexpr std::string_view end = "\"}";
    const bool begins =
        passPrefix(rest, R"({"param":")") && passPrefix(rest, key) && passPrefix(rest, R"(","value":")");
    if (!begins || rest.size() < end.size() || rest.substr(rest.size() - end.size()) != end) return std::nullopt;
    rest.remove_suffix(end.size());
    return isPlain(key) && isPlain(rest) ? std::optional(rest) : std::nullopt;
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
    if (const auto value = plainValue(key, response)) return std::string(*value);
    const Json::Value root = parse(key, response);
    if (!root["value"].isString() || textMember(root, "param") != key) throwMalformed(key);
    return root["value"].asString();
}

void checkSetResponse(const std::string& key, const std::string& response) {
    if (plainValue(key, response)) return;
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
