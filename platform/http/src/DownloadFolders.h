// The folders that downloads are stored in: the size limit of their files, and where to look for half-downloaded files
// of a killed process.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace zav {

/// Bytes per file; nothing for firmware, which is limited by the free space less a reserve.
using FileLimit = std::optional<std::uint64_t>;

struct DownloadFolder {
    const char* path;  // ends with "/"
    FileLimit limit;
    bool hasSubfolders;
};

constexpr std::uint64_t mebibyte = 1024 * 1024;

constexpr std::array<DownloadFolder, 4> downloadFolders{{
    {"/var/volatile/provisioning/", 16 * mebibyte, true},
    {"/config/swupdate/", std::nullopt, false},
    {"/custom/certs/_storage/", 1 * mebibyte, false},
    {"/var/volatile/contacts/", 64 * mebibyte, false},
}};

/// The limit of a file at `destination`. Outside the folders above it is that of provisioning files.
inline FileLimit limitOf(const std::string& destination) {
    for (const DownloadFolder& folder : downloadFolders) {
        if (destination.rfind(folder.path, 0) == 0) return folder.limit;
    }
    return downloadFolders.front().limit;
}

}  // namespace zav
