#include "Json.h"

#include <json/writer.h>

namespace zavctl {

namespace {

std::string toText(const Json::Value& value, const char* indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

}  // namespace

std::string compactJson(const Json::Value& value) { return toText(value, ""); }
std::string readableJson(const Json::Value& value) { return toText(value, "  "); }

}  // namespace zavctl
