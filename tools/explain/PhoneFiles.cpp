#include "explain/PhoneFiles.h"

#include <filesystem>
#include <system_error>

#include "common/PathRoot.h"
#include "explain/Explain.h"

namespace explain {

namespace {

namespace fs = std::filesystem;

}  // namespace

PhoneFiles::PhoneFiles(const std::string& keyFile) : folder_("zavctl-explain") {
    if (folder_.path().empty()) throw ExplainException("no temporary folder can be made in /tmp");
    try {
        if (!keyFile.empty()) link(fs::absolute(keyFile), "/etc/zav.d/key");
        for (const char* path :
             {"/etc/ssl/certs/ca-certificates.crt", "/custom/certs/ca-bundle.pem", "/etc/zav.d/device.pem"}) {
            std::error_code ignored;
            if (fs::exists(path, ignored)) link(path, path);
        }
        // The clean-up before a firmware download: does nothing and succeeds.
        link("/bin/true", "/config/bin/clean-up-utils.sh");
    } catch (const std::system_error& error) {
        throw ExplainException(error.what());
    }
    common::setPathRoot(folder_.path());
}

PhoneFiles::~PhoneFiles() { common::setPathRoot({}); }

void PhoneFiles::link(const std::string& target, const std::string& path) const {
    const fs::path place = folder_.path() + path;
    fs::create_directories(place.parent_path());
    fs::create_symlink(target, place);
}

std::string PhoneFiles::withPhonePaths(std::string text) const {
    const std::string& root = folder_.path();
    for (auto at = text.find(root); at != std::string::npos; at = text.find(root, at)) text.erase(at, root.size());
    return text;
}

}  // namespace explain
