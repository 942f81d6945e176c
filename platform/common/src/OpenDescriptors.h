// Which file descriptors a child process would inherit. Any thread.
#pragma once

namespace common {

/// The highest open descriptor of this process, or 2. `listing` is the kernel's folder of them; where it cannot be
/// read, each number up to the process's limit, at most 65,536, is tried.
int highestOpenDescriptor(const char* listing = "/proc/self/fd");

}  // namespace common
