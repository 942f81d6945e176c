#include "Json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <memory>

namespace zavctl {

namespace {

std::string toText(const Json::Value& value, const char* indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

}  // namespace

bool parseJson(const std::string& text, Json::Value& value, std::string& error) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &error)) return true;
    } catch (const Json::Exception& exception) {
        error = exception.what();
    }
    // The parser reports "* Line 3, Column 5\n  REASON\n" for each error; keep the first one, in one line.
    const std::string::size_type first = error.find('\n');
    const std::string::size_type second = first == std::string::npos ? first : error.find('\n', first + 1);
    error.erase(std::min(second, error.size()));
    std::replace(error.begin(), error.end(), '\n', ':');
    error.erase(0, std::min(error.find_first_not_of("* "), error.size()));
    return false;
}

std::string compactJson(const Json::Value& value) { return toText(value, ""); }
std::string readableJson(const Json::Value& value) { return toText(value, "  "); }

}  // namespace zavctl
