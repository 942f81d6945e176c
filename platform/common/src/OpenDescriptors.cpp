#include "OpenDescriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

// One action instead of some eighty, each of which costs the parent and the child a system call. glibc falls back
// itself on kernels without close_range.
#if defined(__GLIBC__) && !defined(__UCLIBC__)
#if __GLIBC_PREREQ(2, 34)
#define ZAV_CLOSES_FROM 1
#endif
#endif
#ifndef ZAV_CLOSES_FROM
#define ZAV_CLOSES_FROM 0
#endif

namespace common {

namespace {

constexpr long mostTried = 65536;
// The kernel gives out the lowest free descriptor: so many new ones lie at most so far above the highest.
constexpr int openedMeanwhile = 64;

int highestByTrying() {
    const long limit = sysconf(_SC_OPEN_MAX);
    int descriptor = static_cast<int>(limit < 0 ? mostTried : std::min(limit, mostTried)) - 1;
    while (descriptor > STDERR_FILENO && fcntl(descriptor, F_GETFD) < 0) --descriptor;
    return std::max(descriptor, STDERR_FILENO);
}

}  // namespace

// By readdir, which needs no memory: an iterator of std::filesystem ends the process when it finds none.
int highestOpenDescriptor(const char* listing) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(listing), closedir);
    if (!folder) return highestByTrying();
    int highest = STDERR_FILENO;
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread reads this stream
    while (const dirent* entry = readdir(folder.get())) {
        int descriptor = 0;
        if (std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), descriptor).ec == std::errc()) {
            highest = std::max(highest, descriptor);
        }
    }
    return errno != 0 ? highestByTrying() : highest;
}

void closeEachInChild(posix_spawn_file_actions_t& actions) {
    // Closing what is not open is allowed.
    const int last = highestOpenDescriptor() + openedMeanwhile;
    for (int descriptor = STDERR_FILENO + 1; descriptor <= last; ++descriptor) {
        if (posix_spawn_file_actions_addclose(&actions, descriptor) != 0) return;  // beyond the process's limit
    }
}

void closeInChild(posix_spawn_file_actions_t& actions) {
#if ZAV_CLOSES_FROM
    if (posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1) == 0) return;
#endif
    closeEachInChild(actions);
}

}  // namespace common
