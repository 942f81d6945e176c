// Which content codings a download may have. Nothing is ever decoded: a file is stored as it comes, so a coded one is
// welcome only where it was asked for by name.
#pragma once

#include <string>

namespace zav {

/// Whether a file that was requested as `fileName` may come with this value of Content-Encoding: no coding, "identity",
/// or the one whose suffix the name has ("gzip" for image.img.gz). Several codings on top of each other never may.
bool isAcceptedCoding(const std::string& codings, const std::string& fileName);

}  // namespace zav
