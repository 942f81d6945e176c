// The process's heap.
#pragma once

namespace common {

/// Makes all threads allocate from one heap, the only one that the C library gives back whole. Before the first thread.
void useOneHeap();

/// Gives memory that is free back to the system, where the C library keeps it otherwise. Takes milliseconds; any
/// thread.
void releaseFreeMemory();

}  // namespace common
