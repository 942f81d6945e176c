#include "propertyprotocol/Json.h"

#include <json/reader.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "common/ByteSet.h"
#include "propertyprotocol/Limits.h"

namespace propertyprotocol {

namespace {

constexpr common::ByteSet needsEscape([](unsigned char byte) {
    return byte < 0x20 || byte == '"' || byte == '\\' || byte == 0x7f;
});

void appendEscaped(std::string& json, char letter) {
    static constexpr char digits[] = "0123456789abcdef";
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
            const auto byte = static_cast<unsigned char>(letter);
            json += "\\u00";
            json += digits[byte >> 4U];
            json += digits[byte & 15U];
    }
}

std::unique_ptr<Json::CharReader> strictReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // what the root must be is for the caller to say
    builder["stackLimit"] = maxNesting;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

}  // namespace

// Writing the small messages directly takes a tenth of the time of building and serialising a tree.
void appendString(std::string& json, std::string_view text) {
    json += '"';
    while (!text.empty()) {
        const auto run = static_cast<std::size_t>(std::find_if(text.begin(), text.end(), needsEscape) - text.begin());
        json.append(text.data(), run);
        text.remove_prefix(run);
        if (text.empty()) break;
        appendEscaped(json, text.front());
        text.remove_prefix(1);
    }
    json += '"';
}

std::string jsonObject(std::initializer_list<std::pair<std::string_view, std::string_view>> members) {
    std::string json;
    std::size_t size = 2;
    for (const auto& [name, text] : members) size += name.size() + text.size() + 6;
    json.reserve(size);
    for (const auto& [name, text] : members) {
        json += json.empty() ? '{' : ',';
        appendString(json, name);
        json += ':';
        appendString(json, text);
    }
    json += '}';
    return json;
}

std::optional<JsonError> parseJson(const std::string& text, Json::Value& value) {
    thread_local const std::unique_ptr<Json::CharReader> reader = strictReader();
    std::string report;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &report)) return std::nullopt;
    } catch (const Json::Exception&) {
        return JsonError{true, 1, 1, "nested more than " + std::to_string(maxNesting) + " deep"};
    }
    // The report has "* Line 3, Column 5\n  REASON\n" for each error.
    JsonError error;
    std::istringstream place(report);
    std::string word;
    char comma = 0;
    place >> word >> word >> error.line >> comma >> word >> error.column;
    const std::size_t start = std::min(report.find_first_not_of(' ', report.find('\n') + 1), report.size());
    error.reason = report.substr(start, report.find('\n', start) - start);
    return error;
}

std::string JsonError::text() const {
    if (nestedTooDeeply) return reason;
    return "Line " + std::to_string(line) + ", Column " + std::to_string(column) + ":  " + reason;
}

std::string textMember(const Json::Value& object, const char* name) {
    const Json::Value& member = object[name];
    return member.isString() ? member.asString() : std::string();
}

std::string changeMessage(std::string_view param, std::string_view value, std::string_view source) {
    return jsonObject({{"param", param}, {"value", value}, {"source", source}});
}

bool readChange(const std::string& message, Change& change) {
    Json::Value parsed;
    if (parseJson(message, parsed) || !parsed.isObject()) return false;
    const Json::Value& object = parsed;
    if (!object["param"].isString()) return false;
    change = {textMember(object, "param"), textMember(object, "value"), textMember(object, "source")};
    return true;
}

}  // namespace propertyprotocol
