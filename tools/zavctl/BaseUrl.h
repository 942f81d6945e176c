// The option --base: the URL of the folder in which files are published.
#pragma once

#include <string>

namespace zavctl {

/// The URL of a folder, ending in "/", which may have been left out. The URL of an .xml file, and an empty text, stay.
std::string folderUrl(const std::string& given);

}  // namespace zavctl
