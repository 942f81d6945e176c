// Reads a key file as the phone's openssl does (-pass file:): the pass phrase is the first line, without its line feed,
// and at most 1023 bytes. Anything that openssl accepts silently but that is hardly meant is a warning here; a key that
// protects nothing is an error.
#pragma once

#include <string>
#include <vector>

namespace pack {

struct Key {
    std::string passPhrase;
    std::vector<std::string> warnings;  // whole sentences, with the path
};

/// Throws Error if the file cannot be read, or its first line is empty or cannot be a pass phrase.
Key readKey(const std::string& path);

}  // namespace pack
