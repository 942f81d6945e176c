#include "Messages.h"

#include <json/json.h>

#include <memory>

#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Utf8.h"

namespace propertyapi {

namespace {

namespace errors = propertyprotocol::errors;
using propertyprotocol::appendMember;

std::string about(const std::string& key) { return "Property '" + key + "': "; }

[[noreturn]] void throwMalformed(const std::string& key) {
    throw PropertyProtocolException(about(key) + "the answer is malformed");
}

std::string textMember(const Json::Value& object, const char* name) {
    const Json::Value& member = object[name];
    return member.isString() ? member.asString() : std::string();
}

[[noreturn]] void throwError(const std::string& key, const std::string& code, const std::string& reason) {
    const auto text = [&](const char* meaning) { return about(key) + meaning + (reason.empty() ? "" : ": " + reason); };
    if (code == errors::notFound) throw PropertyNotFoundException(text("unknown key"));
    if (code == errors::invalidValue) throw PropertyInvalidValueException(text("invalid value"));
    if (code == errors::readOnly) throw PropertyReadOnlyException(text("read-only"));
    if (code == errors::badRequest) throw PropertyProtocolException(text("bad request"));
    if (code == errors::storage) throw PropertyStorageException(text("cannot be stored"));
    throw PropertyException(text(("error '" + code + "'").c_str()));
}

/// Parses an answer; throws if it is an error or not a JSON object.
Json::Value parse(const std::string& key, const std::string& answer) {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder made;
        made["collectComments"] = false;
        made["stackLimit"] = 16;
        return made;
    }();
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(answer.data(), answer.data() + answer.size(), &root, nullptr)) throwMalformed(key);
    } catch (const Json::Exception&) {  // nested too deeply
        throwMalformed(key);
    }
    if (!root.isObject()) throwMalformed(key);
    const Json::Value& constRoot = root;
    if (constRoot.isMember("error")) {
        throwError(key, textMember(constRoot, "error"), textMember(constRoot, "reason"));
    }
    return root;
}

}  // namespace

std::string getRequest(const std::string& key) {
    std::string json;
    appendMember(json, "param", key);
    return json + '}';
}

std::string setRequest(const std::string& key, const std::string& source, const std::string& value) {
    if (value.size() > propertyprotocol::maxValueBytes)
        throw PropertyInvalidValueException(about(key) + "invalid value: over 64 KiB");
    if (!propertyprotocol::isUtf8(value) || !propertyprotocol::isUtf8(source))
        throw PropertyInvalidValueException(about(key) + "invalid value: not UTF-8");
    std::string json;
    json.reserve(key.size() + source.size() + value.size() + 40);
    appendMember(json, "param", key);
    appendMember(json, "value", value);
    appendMember(json, "source", source);
    return json + '}';
}

std::string listRequest(const std::string& prefix, const std::string& after) {
    std::string json;
    appendMember(json, "prefix", prefix);
    if (!after.empty()) appendMember(json, "after", after);
    return json + '}';
}

std::string readValue(const std::string& key, const std::string& answer) {
    const Json::Value root = parse(key, answer);
    if (!root["value"].isString() || textMember(root, "param") != key) throwMalformed(key);
    return root["value"].asString();
}

void checkSetAnswer(const std::string& key, const std::string& answer) {
    const Json::Value root = parse(key, answer);
    if (textMember(root, "param") != key) throwMalformed(key);
}

PropertyPage readPage(const std::string& prefix, const std::string& answer) {
    const Json::Value root = parse(prefix, answer);
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
