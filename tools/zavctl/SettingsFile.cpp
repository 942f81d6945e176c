#include "SettingsFile.h"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>

#include "Failure.h"
#include "common/Descriptor.h"
#include "propertyprotocol/Json.h"

namespace zavctl {

namespace {

using common::reasonOf;

constexpr std::size_t maxFileBytes = 64 * 1024 * 1024;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw Failure(ExitCode::failed, "bad-file", path + ": " + reason);
}

std::string contentOf(const std::string& path) {
    std::ifstream file;
    if (path != "-") {
        file.open(path, std::ios::binary);
        if (!file) fail(path, "cannot be opened: " + reasonOf(errno));
    }
    std::istream& stream = path == "-" ? std::cin : file;
    std::string text;
    char buffer[65536];
    while (stream.read(buffer, sizeof buffer), stream.gcount() > 0) {
        text.append(buffer, static_cast<std::size_t>(stream.gcount()));
        if (text.size() > maxFileBytes) fail(path, "is larger than 64 MiB");
    }
    if (stream.bad()) fail(path, "cannot be read: " + reasonOf(errno));
    return text;
}

}  // namespace

Json::Value toJson(const Settings& settings) {
    Json::Value root;
    root["version"] = 1;
    root["properties"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : settings) root["properties"][key] = value ? Json::Value(*value) : Json::Value();
    return root;
}

Settings readSettings(const std::string& path) {
    Json::Value root;
    if (const auto error = propertyprotocol::parseJson(contentOf(path), root)) fail(path, error->text());
    if (!root.isObject() || root["version"] != 1 || !root["properties"].isObject()) {
        fail(path, "is not a settings file; expected {\"version\": 1, \"properties\": {KEY: VALUE, ...}}");
    }
    Settings settings;
    for (const std::string& key : root["properties"].getMemberNames()) {
        const Json::Value& value = root["properties"][key];
        if (!value.isString() && !value.isNull()) {
            fail(path, key + ": its value must be a string (\"5\", not 5), or null for the default");
        }
        settings[key] = value.isNull() ? std::nullopt : std::optional<std::string>(value.asString());
    }
    return settings;
}

}  // namespace zavctl
