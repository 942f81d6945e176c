// Limits of the property service. Sizes are in bytes.
#pragma once

#include <cstddef>

namespace propertyprotocol {

inline constexpr std::size_t maxKeyBytes = 255;
inline constexpr std::size_t maxValueBytes = 64 * 1024;

/// Large enough for a value of the maximum size with every byte escaped.
inline constexpr std::size_t maxRequestBytes = 1024 * 1024;

/// Of an import, which may have all settings. An MQTT packet has at most 16 MiB.
inline constexpr std::size_t maxImportBytes = 15 * 1024 * 1024;

/// Nested levels of a request.
inline constexpr int maxNesting = 32;

}  // namespace propertyprotocol
