#include "SettingsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

#include "Failure.h"
#include "Json.h"

namespace zavctl {

namespace {

constexpr std::size_t maxFileBytes = 64 * 1024 * 1024;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
    throw Failure(ExitCode::failed, "bad-file", path + ": " + reason);
}

std::string reasonOf(int error) { return std::generic_category().message(error); }

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
    if (stream.bad()) fail(path, "cannot be read");
    return text;
}

bool writeAll(int file, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(file, text.data() + written, text.size() - written);
        if (count < 0) return false;
        written += static_cast<std::size_t>(count);
    }
    return ::fsync(file) == 0;
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
    std::string error;
    if (!parseJson(contentOf(path), root, error)) fail(path, error);
    if (!root.isObject() || root["version"] != 1 || !root["properties"].isObject()) {
        fail(path, "holds no settings: {\"version\": 1, \"properties\": {KEY: VALUE, ...}} is wanted");
    }
    Settings settings;
    for (const std::string& key : root["properties"].getMemberNames()) {
        const Json::Value& value = root["properties"][key];
        if (!value.isString() && !value.isNull()) {
            fail(path, key + ": its value must be a text (\"5\", not 5), or null for the default");
        }
        settings[key] = value.isNull() ? std::nullopt : std::optional<std::string>(value.asString());
    }
    return settings;
}

void writeSettings(const std::string& path, const Settings& settings, bool replace) {
    struct stat status {};
    if (!replace && ::lstat(path.c_str(), &status) == 0) {
        fail(path, "exists already; --force replaces it");
    }
    std::string fresh = path + ".XXXXXX";
    const int file = ::mkostemp(fresh.data(), O_CLOEXEC);  // mode 0600
    if (file < 0) fail(path, "cannot be made: " + reasonOf(errno));
    const bool written = writeAll(file, readableJson(toJson(settings)) + "\n");
    int error = errno;
    ::close(file);
    bool placed = false;
    if (written) {
        // A link, unlike a renaming, never replaces what somebody else has put there meanwhile.
        placed = (replace ? ::rename(fresh.c_str(), path.c_str()) : ::link(fresh.c_str(), path.c_str())) == 0;
        error = errno;
    }
    if (!placed || !replace) ::unlink(fresh.c_str());
    if (!placed) fail(path, "cannot be written: " + reasonOf(error));
}

}  // namespace zavctl
