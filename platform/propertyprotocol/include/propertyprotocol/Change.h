// The message that the property service publishes after each accepted set.
#pragma once

#include <string>

namespace propertyprotocol {

struct Change {
    std::string param;
    std::string value;
    std::string source;
};

std::string changeMessage(const std::string& param, const std::string& value, const std::string& source);

/// Returns false and leaves `change` unchanged if the message is not a change.
bool readChange(const std::string& message, Change& change);

}  // namespace propertyprotocol
