// The one exception of this library: what is wrong, and where, in a sentence for people.
#pragma once

#include <stdexcept>
#include <string>

namespace pack {

class Error : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
    Error(const std::string& path, const std::string& reason) : runtime_error(path + ": " + reason) {}
};

}  // namespace pack
