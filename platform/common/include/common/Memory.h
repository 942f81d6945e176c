// The heap of the process.
#pragma once

namespace common {

/// Makes all threads allocate from the main heap, the only one that releaseFreeMemory can return to the system. Call
/// before any thread is started. Does nothing unless the C library is glibc.
void useOneHeap();

/// Returns free memory to the system. Takes milliseconds. Any thread. Does nothing unless the C library is glibc.
void releaseFreeMemory();

}  // namespace common
