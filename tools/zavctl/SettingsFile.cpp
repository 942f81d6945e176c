#include "SettingsFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

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

bool writeAll(int file, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        written += static_cast<std::size_t>(count);
    }
    return true;
}

void writeFile(const std::string& path, const std::string& text, bool replace) {
    std::string temporary = path + ".XXXXXX";
    common::Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (file.get() < 0) fail(path, "cannot be created: " + reasonOf(errno));
    bool succeeded = writeAll(file.get(), text) && ::fsync(file.get()) == 0;
    // Unlike rename(), link() never replaces a file that appeared meanwhile.
    if (succeeded)
        succeeded =
            (replace ? ::rename(temporary.c_str(), path.c_str()) : ::link(temporary.c_str(), path.c_str())) == 0;
    const int error = errno;
    if (!succeeded || !replace) ::unlink(temporary.c_str());
    if (!succeeded) fail(path, "cannot be written: " + reasonOf(error));
}

bool isStream(mode_t mode) { return S_ISFIFO(mode) || S_ISCHR(mode); }

[[noreturn]] void refuse(const std::string& path, mode_t mode, bool isLink) {
    if (isLink) fail(path, "is a symbolic link, which is not followed; name the file itself");
    if (S_ISDIR(mode)) fail(path, "is a directory");
    if (S_ISBLK(mode)) fail(path, "is a block device");
    fail(path, "is not a file, a pipe or a character device");
}

bool isStandardOutput(const struct stat& status) {
    struct stat output {};
    return ::fstat(STDOUT_FILENO, &output) == 0 && output.st_dev == status.st_dev && output.st_ino == status.st_ino;
}

void writeStream(const std::string& path, const std::string& text, bool isLink) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) fail(path, "cannot be opened: " + reasonOf(errno));
    if (!isStream(status.st_mode)) refuse(path, status.st_mode, isLink);
    if (S_ISFIFO(status.st_mode) && isStandardOutput(status)) fail(path, "is standard output; use - for it");
    const common::Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) fail(path, "cannot be opened: " + reasonOf(errno));
    // The path may have been replaced between stat() and open().
    if (::fstat(file.get(), &status) != 0 || !isStream(status.st_mode)) refuse(path, status.st_mode, isLink);
    if (!writeAll(file.get(), text)) fail(path, "cannot be written: " + reasonOf(errno));
}

}  // namespace

Json::Value toJson(const Settings& settings) {
    Json::Value root;
    root["version"] = 1;
    root["properties"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : settings) root["properties"][key] = value ? Json::Value(*value) : Json::Value();
    return root;
}

namespace {

Json::Value documentIn(const std::string& path) {
    Json::Value root;
    if (const auto error = propertyprotocol::parseJson(contentOf(path), root)) fail(path, error->text());
    return root;
}

Settings settingsIn(const std::string& path, const Json::Value& properties) {
    Settings settings;
    for (const std::string& key : properties.getMemberNames()) {
        const Json::Value& value = properties[key];
        if (!value.isString() && !value.isNull()) {
            fail(path, key + ": its value must be a string (\"5\", not 5), or null for the default");
        }
        settings[key] = value.isNull() ? std::nullopt : std::optional<std::string>(value.asString());
    }
    return settings;
}

}  // namespace

Settings readSettings(const std::string& path) {
    const Json::Value root = documentIn(path);
    if (!root.isObject() || root["version"] != 1 || !root["properties"].isObject()) {
        fail(path, "is not a settings file; expected {\"version\": 1, \"properties\": {KEY: VALUE, ...}}");
    }
    return settingsIn(path, root["properties"]);
}

Settings readProperties(const std::string& path) {
    const Json::Value root = documentIn(path);
    if (!root.isObject()) fail(path, "is not a JSON object of keys and values");
    return root["properties"].isObject() ? settingsIn(path, root["properties"]) : settingsIn(path, root);
}

void writePrivateFile(const std::string& path, const std::string& text, bool replace) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return writeFile(path, text, false);
    if (!S_ISREG(status.st_mode)) return writeStream(path, text, S_ISLNK(status.st_mode));
    if (!replace) fail(path, "already exists; --force replaces it");
    writeFile(path, text, true);
}

}  // namespace zavctl
