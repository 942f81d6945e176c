// Limits of what the property service accepts. Sizes are in bytes.
#pragma once

#include <cstddef>

namespace propertyprotocol {

inline constexpr std::size_t maxKeyBytes = 255;
inline constexpr std::size_t maxValueBytes = 64 * 1024;

/// Of a request. A value of the maximum size fits even if every byte of it is escaped.
inline constexpr std::size_t maxRequestBytes = 1024 * 1024;

/// Of an import, which may hold all settings. An MQTT packet has at most 16 MiB.
inline constexpr std::size_t maxImportBytes = 15 * 1024 * 1024;

/// Levels of a JSON text.
inline constexpr int maxNesting = 32;

}  // namespace propertyprotocol
