// A MAC address as people write it in tables.
#pragma once

#include <optional>
#include <string>

namespace pack {

/// The address with this separator between its pairs of digits, in its own case; nothing if the text is not the address
/// of one device: twelve hexadecimal digits, in pairs with ":" or "-" or without separators, and not a group address.
std::optional<std::string> formatMac(const std::string& text, char separator);

}  // namespace pack
