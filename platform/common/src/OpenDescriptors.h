// Which file descriptors a child process would inherit. Any thread.
#pragma once

#include <spawn.h>

namespace common {

/// The highest open descriptor of this process, or 2. `listing` is the kernel's folder of them; where it cannot be
/// read, each number up to the process's limit, at most 65,536, is tried.
int highestOpenDescriptor(const char* listing = "/proc/self/fd");

/// Adds actions that close every descriptor above standard error in the child, also those that other threads open
/// before it starts.
void closeInChild(posix_spawn_file_actions_t& actions);

/// The same for C libraries that can only close one by one: of those opened meanwhile, 64.
void closeEachInChild(posix_spawn_file_actions_t& actions);

}  // namespace common
