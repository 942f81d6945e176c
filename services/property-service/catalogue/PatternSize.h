// The size of a regular expression once its repetitions are written out: the C library's compiler does write them out,
// so a short expression such as "a++++++++++++++++++++++++++++++" or "((a{99}){99}){99}" would take all memory.
#pragma once

#include <cstddef>
#include <string>

namespace propertyservice {

/// Characters, brackets, groups and repetitions of a POSIX extended regular expression, each as often as the
/// repetitions around it copy it; `limit` + 1 if there are more. The expression need not be valid.
std::size_t sizeOfPattern(const std::string& pattern, std::size_t limit);

}  // namespace propertyservice
