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

// Adds the partial files in a folder and, if wanted, in its subfolders. What cannot be read is skipped.
void findPartialFiles(const fs::path& folder, bool withSubfolders, std::vector<fs::path>& found) {
    std::error_code error;
    std::vector<fs::path> subfolders;
    for (fs::directory_iterator each(folder, error), end; !error && each != end; each.increment(error)) {
        std::error_code unreadable;
        const fs::file_status status = each->symlink_status(unreadable);
        if (fs::is_directory(status) && withSubfolders) subfolders.push_back(each->path());
        if (fs::is_regular_file(status) && PartialFile::isPartialName(each->path().filename())) {
            found.push_back(each->path());
        }
    }
    for (const fs::path& subfolder : subfolders) findPartialFiles(subfolder, withSubfolders, found);
}

std::vector<fs::path> partialFilesIn(const DownloadFolder& folder) {
    std::vector<fs::path> found;
    std::error_code error;
    const fs::path path = fs::path(folder.path).parent_path();  // without the "/" at its end
    if (fs::is_directory(fs::symlink_status(path, error))) findPartialFiles(path, folder.hasSubfolders, found);
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
                } else if (error) {
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
