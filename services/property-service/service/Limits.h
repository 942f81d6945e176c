// Bounds of what a client can make the service keep or send, beside those of the protocol.
#pragma once

#include <cstddef>

#include "propertyprotocol/Limits.h"

namespace propertyservice {

using propertyprotocol::maxImportBytes;
using propertyprotocol::maxNesting;
using propertyprotocol::maxRequestBytes;
using propertyprotocol::maxValueBytes;

/// Commas and opening brackets of one request, and of an import: parsed, each takes a hundred times its byte.
inline constexpr std::size_t maxParts = 1000;
inline constexpr std::size_t maxImportParts = 200000;
/// Of one answer to `list`: whichever comes first. A page always has at least one property.
inline constexpr std::size_t maxPageEntries = 1000;
inline constexpr std::size_t maxPageBytes = 1024 * 1024;

}  // namespace propertyservice
