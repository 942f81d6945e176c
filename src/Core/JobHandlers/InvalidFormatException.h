// Thrown for a malformed parameter name in a provisioning file.
#pragma once

#include <stdexcept>

namespace zav {

class InvalidFormatException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

}  // namespace zav
