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
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr unsigned deepestFolder = 16;  // downloads lie one folder deep

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

// `path` ends with "/" and is for the log; `name` is the folder's, below the folder `above`.
void clean(int above, const std::string& name, const std::string& path, unsigned subfolders) {
    const int descriptor = ::openat(above, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) return;
    const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(descriptor));
    if (folder == nullptr) {
        ::close(descriptor);
        return;
    }
    for (const std::string& entry : namesIn(folder.get())) {
        struct stat status {};
        if (entry == "." || entry == ".." || ::fstatat(descriptor, entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISREG(status.st_mode) && PartialFile::isPartialName(entry)) {
            removeFile(descriptor, path, entry);
        } else if (S_ISDIR(status.st_mode) && subfolders > 0) {
            clean(descriptor, entry, path + entry + "/", subfolders - 1);
        }
    }
}

}  // namespace

void removePartialDownloads() noexcept {
    try {
        for (const DownloadFolder& folder : downloadFolders) {
            const std::string path = folder.path;
            clean(AT_FDCWD, path.substr(0, path.size() - 1), path, folder.hasSubfolders ? deepestFolder : 0);
        }
    } catch (...) {
        dbg::Debug::warning() << "Half-downloaded files cannot be looked for: no memory" << std::endl;
    }
}

}  // namespace zav
