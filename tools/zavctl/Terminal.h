// The terminal that zavctl writes to.
#pragma once

#include <cstddef>

namespace zavctl {

/// The width in columns: the variable COLUMNS if it is a number above 0, else that of the terminal at standard error or
/// standard output, else 80. It may change at any time.
std::size_t terminalColumns();

}  // namespace zavctl
