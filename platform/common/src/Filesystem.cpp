#include "common/Filesystem.h"

#include <filesystem>
#include <system_error>

#include "common/PathRoot.h"

namespace filesystem {

void removeAllFromDirectory(const std::string& directory) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::directory_iterator entries(common::rooted(directory), error);
    if (error == std::errc::no_such_file_or_directory) return;
    if (error) throw fs::filesystem_error("cannot read the folder", directory, error);

    std::error_code firstError;
    fs::path firstFailed;
    for (const auto& entry : entries) {
        std::error_code failed;
        fs::remove_all(entry.path(), failed);
        if (failed && !firstError) {
            firstError = failed;
            firstFailed = entry.path();
        }
    }
    if (firstError) throw fs::filesystem_error("cannot remove", firstFailed, firstError);
}

}  // namespace filesystem
