#include "DownloadFolders.h"

#include <algorithm>

namespace zav {

namespace {

const DownloadFolder* folderOf(const std::string& destination) {
    const auto* const found =
        std::find_if(downloadFolders.begin(), downloadFolders.end(), [&](const DownloadFolder& folder) {
            const std::string path = folder.path;
            return destination.compare(0, path.size(), path) == 0;
        });
    return found == downloadFolders.end() ? nullptr : found;
}

}  // namespace

bool isFirmware(const std::string& destination) {
    const DownloadFolder* const folder = folderOf(destination);
    return folder != nullptr && folder->limit == 0;
}

std::uint64_t fixedLimit(const std::string& destination) {
    const DownloadFolder* const folder = folderOf(destination);
    return (folder == nullptr ? downloadFolders.front() : *folder).limit;
}

}  // namespace zav
