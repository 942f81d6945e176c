// Mutates XML documents as trees, so that most results are still well formed: random bytes rarely are. The names and
// values that it inserts are those that provisioning files have.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

/// The document with one to four random changes, which depend on nothing but the arguments. Returns "" if the text is
/// not a document of plain elements, or if the result is longer than `maximumSize`.
std::string mutateXml(const std::string& document, std::uint32_t seed, std::size_t maximumSize);

}  // namespace fuzz
