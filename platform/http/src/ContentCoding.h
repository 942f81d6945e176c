// The content codings that a download may have. Files are stored as they are received, never decoded, so a coding is
// accepted only if the name of the requested file has its suffix.
#pragma once

#include <string>

namespace zav {

/// Whether the file that was requested as `fileName` may have these codings, a value of Content-Encoding: none,
/// "identity", or the single one that belongs to the suffix ("gzip" for image.img.gz).
bool isAcceptedCoding(const std::string& codings, const std::string& fileName);

}  // namespace zav
