// The process's heap.
#pragma once

namespace common {

/// Gives memory that is free back to the system, where the C library keeps it otherwise. Takes milliseconds; any
/// thread.
void releaseFreeMemory();

}  // namespace common
