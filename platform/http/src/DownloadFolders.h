// The folders that downloads go to, in one table: how large a file may grow there, and where to look for files that a
// killed process left half-downloaded.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace zav {

struct DownloadFolder {
    const char* path;     // ends with "/"
    std::uint64_t limit;  // bytes of a file; 0: the free space less a reserve
    bool hasSubfolders;
};

constexpr std::uint64_t mebibyte = 1024 * 1024;

constexpr std::array<DownloadFolder, 4> downloadFolders{{
    {"/var/volatile/provisioning/", 16 * mebibyte, true},
    {"/config/swupdate/", 0, false},
    {"/custom/certs/_storage/", 1 * mebibyte, false},
    {"/var/volatile/contacts/", 64 * mebibyte, false},
}};

/// The folder of firmware images, whose broken transfers are tried again.
bool isFirmware(const std::string& destination);

/// The limit of a file at `destination`; that of provisioning files outside the folders above. Not for firmware.
std::uint64_t fixedLimit(const std::string& destination);

}  // namespace zav
