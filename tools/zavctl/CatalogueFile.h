// Where the catalogue of keys is that commands read which need no phone.
#pragma once

#include <string>

namespace zavctl {

/// The path of the catalogue that was installed with this program; in a build tree that of the source tree.
std::string defaultCatalogue();

}  // namespace zavctl
