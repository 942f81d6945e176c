#include "service/Codec.h"

#include <cstdio>

#include "service/Limits.h"
#include "service/Utf8.h"

namespace propertyservice {

namespace {

std::unique_ptr<Json::CharReader> strictReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = maxNesting;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

void appendMember(std::string& json, const char* name, const std::string& text) {
    json += json.empty() ? "{\"" : ",\"";
    json += name;
    json += "\":";
    appendQuoted(json, text);
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
    std::string source = text("source", key, false);
    return {std::move(key), std::move(value), std::move(source)};
}

ListRequest RequestReader::list(const std::string& payload) {
    parse(payload);
    return {text("prefix", "", true), text("after", "", false)};
}

void RequestReader::parse(const std::string& payload) {
    if (payload.size() > maxPayloadBytes) {
        throw BadRequest("", "the payload is larger than " + std::to_string(maxPayloadBytes) + " bytes");
    }
    if (!isCleanJson(payload)) throw BadRequest("", "the payload is no UTF-8 JSON text");
    errors_.clear();
    bool parsed = false;
    try {
        parsed = reader_->parse(payload.data(), payload.data() + payload.size(), &object_, &errors_);
    } catch (const Json::Exception&) {  // nested too deeply
    }
    if (!parsed || !object_.isObject()) throw BadRequest("", "the payload is no JSON object");
}

std::string RequestReader::text(const char* member, const std::string& param, bool required) const {
    const Json::Value* const value = object_.find(member, member + std::char_traits<char>::length(member));
    if (value == nullptr) {
        if (!required) return {};
        throw BadRequest(param, "\"" + std::string(member) + "\" is missing");
    }
    if (!value->isString()) throw BadRequest(param, "\"" + std::string(member) + "\" is no text");
    std::string text = value->asString();
    // Escapes can spell what the payload itself could not hold: a NUL, or half a surrogate pair.
    if (!isCleanText(text)) throw BadRequest(param, "\"" + std::string(member) + "\" is no UTF-8 text without NUL");
    return text;
}

std::string RequestReader::param() const { return text("param", "", true); }

void appendQuoted(std::string& json, const std::string& text) {
    json += '"';
    std::size_t plain = 0;  // where the run of bytes that stand for themselves began
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char letter = text[at];
        const auto byte = static_cast<unsigned char>(letter);
        if (byte >= 0x20 && letter != '"' && letter != '\\' && byte != 0x7f) continue;
        json.append(text, plain, at - plain);
        plain = at + 1;
        switch (letter) {
            case '"':
                json += "\\\"";
                break;
            case '\\':
                json += "\\\\";
                break;
            case '\n':
                json += "\\n";
                break;
            case '\r':
                json += "\\r";
                break;
            case '\t':
                json += "\\t";
                break;
            default:
                char escape[7];
                std::snprintf(escape, sizeof escape, "\\u%04x", byte);
                json += escape;
        }
    }
    json.append(text, plain, text.size() - plain);
    json += '"';
}

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

std::string changeMessage(const std::string& key, const std::string& value, const std::string& source) {
    std::string json;
    json.reserve(key.size() + value.size() + source.size() + 48);
    appendMember(json, "param", key);
    appendMember(json, "value", value);
    appendMember(json, "source", source);
    json += '}';
    return json;
}

}  // namespace propertyservice
