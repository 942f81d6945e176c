#include "http/PartialDownloads.h"

#include <unistd.h>

#include <cerrno>
#include <string>

#include "DownloadFolders.h"
#include "PartialFile.h"
#include "common/Descriptor.h"
#include "common/Filesystem.h"
#include "debug/Debug.h"

namespace zav {

namespace {

bool isPartial(const filesystem::Entry& entry) {
    return entry.isRegular && PartialFile::isPartialName(entry.path.substr(entry.path.rfind('/') + 1));
}

void remove(const std::string& path) {
    if (::unlink(path.c_str()) == 0) {
        dbg::Debug::info() << "Removed the half-downloaded file " << path << std::endl;
    } else if (errno != ENOENT) {
        dbg::Debug::warning() << "Cannot remove the half-downloaded file " << path << ": " << common::reasonOf(errno)
                              << std::endl;
    }
}

}  // namespace

void removePartialDownloads() noexcept {
    try {
        for (const DownloadFolder& folder : downloadFolders) {
            for (const filesystem::Entry& entry : filesystem::entriesOf(folder.path, folder.hasSubfolders)) {
                if (isPartial(entry)) remove(entry.path);
            }
        }
    } catch (...) {
        dbg::Debug::warning() << "Cannot look for half-downloaded files: out of memory" << std::endl;
    }
}

}  // namespace zav
