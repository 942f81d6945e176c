// Recognises what is published already. Any thread.
#pragma once

#include <string>

namespace pack {

/// Whether the file is a regular file that decrypts to these bytes. No file, or one that cannot be read, is not.
bool isPublished(const std::string& path, const std::string& plain, const std::string& passPhrase);

/// Whether the file is a regular file with these bytes.
bool hasContent(const std::string& path, const std::string& bytes);

}  // namespace pack
