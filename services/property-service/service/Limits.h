// Limits of memory and answer size, in addition to those of the protocol.
#pragma once

#include <cstddef>

#include "propertyprotocol/Limits.h"

namespace propertyservice {

using propertyprotocol::maxImportBytes;
using propertyprotocol::maxNesting;
using propertyprotocol::maxRequestBytes;
using propertyprotocol::maxValueBytes;

/// Commas and opening brackets of a request: each takes about 100 bytes of memory once parsed.
inline constexpr std::size_t maxRequestTokens = 1000;
inline constexpr std::size_t maxImportTokens = 200000;
/// A page of a listing ends at the first limit that it reaches, but has at least one entry.
inline constexpr std::size_t maxPageEntries = 1000;
inline constexpr std::size_t maxPageBytes = 1024 * 1024;

}  // namespace propertyservice
