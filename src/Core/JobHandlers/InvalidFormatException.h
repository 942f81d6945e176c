// A name in a provisioning file that does not have the form it must have.
#pragma once

#include <stdexcept>

namespace zav {

class InvalidFormatException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

}  // namespace zav
