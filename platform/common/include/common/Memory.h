// The memory of the process.
#pragma once

namespace common {

/// Makes all threads allocate from the main heap, the only one that releaseFreeMemory can return to the system. Call
/// before any thread is started. Does nothing unless the C library is glibc.
void useOneHeap();

/// Returns free memory to the system. Takes milliseconds. Any thread. Does nothing unless the C library is glibc.
void releaseFreeMemory();

/// Returns the memory of code and constants of the program and its libraries: what runs afterwards is mapped again,
/// from the system's cache of files or, if it has needed that memory meanwhile, from the files. That takes 0.2 ms in
/// all. Any thread, at any time. Does nothing while a debugger is attached, or unless the C library is glibc.
void releaseCode();

}  // namespace common
