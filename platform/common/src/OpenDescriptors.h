// Which file descriptors a child process would inherit. Any thread.
#pragma once

#include <spawn.h>

namespace common {

/// The highest open descriptor of this process, or 2. `listing` is the kernel's folder of them; where it cannot be
/// read, each number up to the process's limit, at most 65,536, is tried.
int highestOpenDescriptor(const char* listing = "/proc/self/fd");

/// Adds actions that close every descriptor above standard error in the child, up to 64 that other threads open before
/// it starts included.
void closeInChild(posix_spawn_file_actions_t& actions);

}  // namespace common
