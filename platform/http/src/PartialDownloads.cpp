#include "http/PartialDownloads.h"

#include <filesystem>
#include <system_error>
#include <vector>

#include "DownloadFolders.h"
#include "PartialFile.h"
#include "debug/Debug.h"

namespace zav {

namespace {

namespace fs = std::filesystem;

// Folders that cannot be read are skipped.
std::vector<fs::path> partialFilesIn(const DownloadFolder& folder) {
    std::vector<fs::path> found;
    std::error_code error;
    const fs::path path(folder.path);
    if (!fs::is_directory(fs::symlink_status(path.parent_path(), error))) return found;
    for (fs::recursive_directory_iterator each(path, fs::directory_options::skip_permission_denied, error), end;
         !error && each != end; each.increment(error)) {
        if (!folder.hasSubfolders) each.disable_recursion_pending();
        if (PartialFile::isPartialName(each->path().filename()) && fs::is_regular_file(each->symlink_status(error))) {
            found.push_back(each->path());
        }
    }
    return found;
}

}  // namespace

void removePartialDownloads() noexcept {
    try {
        for (const DownloadFolder& folder : downloadFolders) {
            for (const fs::path& path : partialFilesIn(folder)) {
                std::error_code error;
                if (fs::remove(path, error)) {
                    dbg::Debug::info() << "Removed the half-downloaded file " << path.native() << std::endl;
                } else {
                    dbg::Debug::warning() << "Cannot remove the half-downloaded file " << path.native() << ": "
                                          << error.message() << std::endl;
                }
            }
        }
    } catch (...) {
        dbg::Debug::warning() << "Cannot look for half-downloaded files: out of memory" << std::endl;
    }
}

}  // namespace zav
