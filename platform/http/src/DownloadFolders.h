// The folders that downloads are stored in: the size limit of their files, and where to look for half-downloaded files
// of a killed process.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace zav {

struct DownloadFolder {
    const char* path;     // ends with "/"
    std::uint64_t limit;  // bytes per file; 0: the free space less a reserve (firmware)
    bool hasSubfolders;
};

constexpr std::uint64_t mebibyte = 1024 * 1024;

constexpr std::array<DownloadFolder, 4> downloadFolders{{
    {"/var/volatile/provisioning/", 16 * mebibyte, true},
    {"/config/swupdate/", 0, false},
    {"/custom/certs/_storage/", 1 * mebibyte, false},
    {"/var/volatile/contacts/", 64 * mebibyte, false},
}};

/// Whether `destination` is a firmware image, whose interrupted transfers are retried.
bool isFirmware(const std::string& destination);

/// The size limit in bytes of a file at `destination`, which must not be firmware. Outside the folders above it is that
/// of provisioning files.
std::uint64_t fixedLimit(const std::string& destination);

}  // namespace zav
