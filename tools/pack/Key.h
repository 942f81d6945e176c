// Reads a key file as the phone's openssl does (-pass file:): the pass phrase is the first line, without its line feed,
// and at most 1023 bytes. Anything that openssl accepts silently but that is hardly meant is a warning here; a key that
// protects nothing is an error.
#pragma once

#include <string>
#include <vector>

namespace pack {

struct Key {
    std::string passPhrase;
    std::string content;                // of the whole file
    std::vector<std::string> warnings;  // whole sentences, with the path
};

/// Throws Error if the file cannot be read, or its first line is empty or cannot be a pass phrase.
Key readKey(const std::string& path);

/// Whether these bytes of a file are a copy of the key, whatever blanks and line ends it has at its end: either of the
/// pass phrase or of the whole key file.
bool isKey(const std::string& bytes, const Key& key);

}  // namespace pack
