#include "http/PartialDownloads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "DownloadFolders.h"
#include "PartialFile.h"
#include "common/Descriptor.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr unsigned maxDepth = 16;  // more than the one level that downloads use

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

std::vector<std::string> namesIn(DIR* folder) {
    std::vector<std::string> names;
    while (const dirent* const entry = ::readdir(folder)) names.emplace_back(entry->d_name);
    return names;
}

void removeFile(int folder, const std::string& path, const std::string& name) {
    if (::unlinkat(folder, name.c_str(), 0) == 0) {
        dbg::Debug::info() << "Removed the half-downloaded file " << path << name << std::endl;
    } else {
        dbg::Debug::warning() << "Cannot remove the half-downloaded file " << path << name << ": "
                              << std::generic_category().message(errno) << std::endl;
    }
}

// Cleans the folder `name` in the folder `parent`, and subfolders down to `depth` levels. `path` is its path for the
// log and ends with "/".
void clean(int parent, const std::string& name, const std::string& path, unsigned depth) {
    common::Descriptor opened(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (opened.get() < 0) return;
    const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(opened.get()));
    if (folder == nullptr) return;
    const int descriptor = opened.release();  // closedir closes it
    for (const std::string& entry : namesIn(folder.get())) {
        struct stat status {};
        if (entry == "." || entry == ".." || ::fstatat(descriptor, entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISREG(status.st_mode) && PartialFile::isPartialName(entry)) {
            removeFile(descriptor, path, entry);
        } else if (S_ISDIR(status.st_mode) && depth > 0) {
            clean(descriptor, entry, path + entry + "/", depth - 1);
        }
    }
}

}  // namespace

void removePartialDownloads() noexcept {
    try {
        for (const DownloadFolder& folder : downloadFolders) {
            const std::string path = folder.path;
            clean(AT_FDCWD, path.substr(0, path.size() - 1), path, folder.hasSubfolders ? maxDepth : 0);
        }
    } catch (...) {
        dbg::Debug::warning() << "Cannot look for half-downloaded files: out of memory" << std::endl;
    }
}

}  // namespace zav
