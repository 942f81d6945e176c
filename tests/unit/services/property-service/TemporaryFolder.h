// A temporary folder, removed by the destructor.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

class TemporaryFolder {
 public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "property-service-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
        path_ = pattern;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
    std::filesystem::path path_;
};
