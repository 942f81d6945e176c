// How large things may be: what a client can make the service keep or send is bounded.
#pragma once

#include <cstddef>

namespace propertyservice {

inline constexpr std::size_t maxValueBytes = 64 * 1024;
inline constexpr std::size_t maxKeyBytes = 255;
/// Of one request; a value of the full size fits even with every byte of it escaped.
inline constexpr std::size_t maxPayloadBytes = 1024 * 1024;
/// Of an import: a backup has all settings in one. A packet of the bus has 16 MiB at most.
inline constexpr std::size_t maxImportBytes = 15 * 1024 * 1024;
inline constexpr int maxNesting = 32;
/// Commas and opening brackets of one request, and of an import: parsed, each takes a hundred times its byte.
inline constexpr std::size_t maxParts = 1000;
inline constexpr std::size_t maxImportParts = 200000;
/// Of one answer to `list`: whichever comes first. A page always has at least one property.
inline constexpr std::size_t maxPageEntries = 1000;
inline constexpr std::size_t maxPageBytes = 1024 * 1024;

}  // namespace propertyservice
