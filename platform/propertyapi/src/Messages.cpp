#include "Messages.h"

#include <json/json.h>

#include <memory>
#include <string_view>

namespace propertyapi {

namespace {

/// Requests are small and many: written directly they cost a tenth of a tree that is built and thrown away.
void appendText(std::string& json, std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    json += '"';
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        if (each == '"' || each == '\\') {
            json += '\\';
            json += each;
        } else if (byte < 0x20 || byte == 0x7f) {
            json += "\\u00";
            json += digits[byte >> 4U];
            json += digits[byte & 15U];
        } else {
            json += each;
        }
    }
    json += '"';
}

void appendMember(std::string& json, std::string_view name, std::string_view text) {
    json += json.empty() ? '{' : ',';
    appendText(json, name);
    json += ':';
    appendText(json, text);
}

std::string about(const std::string& key) { return "Property '" + key + "': "; }

[[noreturn]] void throwMalformed(const std::string& key) {
    throw PropertyProtocolException(about(key) + "the answer cannot be understood");
}

std::string textMember(const Json::Value& object, const char* name) {
    const Json::Value& member = object[name];
    return member.isString() ? member.asString() : std::string();
}

[[noreturn]] void throwError(const std::string& key, const std::string& code, const std::string& reason) {
    const auto text = [&](const char* meaning) { return about(key) + meaning + (reason.empty() ? "" : ": " + reason); };
    if (code == "not-found") throw PropertyNotFoundException(text("unknown key"));
    if (code == "invalid-value") throw PropertyInvalidValueException(text("invalid value"));
    if (code == "read-only") throw PropertyReadOnlyException(text("read-only"));
    if (code == "bad-request") throw PropertyProtocolException(text("bad request"));
    if (code == "storage") throw PropertyStorageException(text("cannot be stored"));
    throw PropertyException(text(("error '" + code + "'").c_str()));
}

/// The answer as an object that is no error.
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
    } catch (const Json::Exception&) {  // nested too deep
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
    if (value.size() > maxValueBytes) throw PropertyInvalidValueException(about(key) + "invalid value: over 64 KiB");
    if (!isUtf8(value) || !isUtf8(source)) throw PropertyInvalidValueException(about(key) + "invalid value: not UTF-8");
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

void readAcceptance(const std::string& key, const std::string& answer) {
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

bool isUtf8(const std::string& text) {
    const auto byteAt = [&text](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : static_cast<unsigned char>(0);
    };
    std::size_t at = 0;
    while (at < text.size()) {
        const unsigned char lead = byteAt(at);
        std::size_t following = 0;
        unsigned char lowest = 0x80;  // of the second byte: excludes overlong forms, surrogates, beyond U+10FFFF
        unsigned char highest = 0xbf;
        if (lead < 0x80) {
            ++at;
            continue;
        }
        if (lead >= 0xc2 && lead <= 0xdf) {
            following = 1;
        } else if (lead >= 0xe0 && lead <= 0xef) {
            following = 2;
            if (lead == 0xe0) lowest = 0xa0;
            if (lead == 0xed) highest = 0x9f;
        } else if (lead >= 0xf0 && lead <= 0xf4) {
            following = 3;
            if (lead == 0xf0) lowest = 0x90;
            if (lead == 0xf4) highest = 0x8f;
        } else {
            return false;
        }
        if (byteAt(at + 1) < lowest || byteAt(at + 1) > highest) return false;
        for (std::size_t each = 2; each <= following; ++each) {
            if ((byteAt(at + each) & 0xc0U) != 0x80U) return false;
        }
        at += following + 1;
    }
    return true;
}

}  // namespace propertyapi
