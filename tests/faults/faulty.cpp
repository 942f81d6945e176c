// A preload library that makes one process fail as an exhausted machine would: the n-th allocation, threads,
// descriptors, a full disk. It also keeps what the process has synced of each file it writes, so that a power cut can
// be played afterwards: FAULTY_DISK names the folder of these copies, by device and inode; without it nothing is kept.
//
// FAULTY names a file with a `Control`, which another process writes. Children start without this library.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#define EXPORT extern "C" __attribute__((visibility("default")))

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* old, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

namespace {

// The Python side writes it as five 64-bit numbers.
struct Control {
    std::atomic<std::int64_t> allocations;  // counted since it was set to 0
    std::atomic<std::int64_t> failAt;       // the allocation that fails; 0 for none
    std::atomic<std::int64_t> noThreads;
    std::atomic<std::int64_t> diskFull;
    std::atomic<std::int64_t> descriptors;  // the process may have no more, from its start; 0 for no limit
};

Control* control = nullptr;
char disk[256];  // empty without FAULTY_DISK
std::mutex diskMutex;

void limitDescriptors() {
    rlimit limit{};
    if (control->descriptors == 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = static_cast<rlim_t>(control->descriptors);
    setrlimit(RLIMIT_NOFILE, &limit);
}

__attribute__((constructor)) void begin() {
    void* first = nullptr;
    backtrace(&first, 1);  // loads what it needs: later there may be no memory for that
    if (const char* path = getenv("FAULTY")) {
        const int file = open(path, O_RDWR | O_CLOEXEC);
        void* memory =
            file < 0 ? MAP_FAILED : mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (memory == MAP_FAILED) _exit(127);
        close(file);
        control = static_cast<Control*>(memory);
        limitDescriptors();
    }
    if (const char* path = getenv("FAULTY_DISK")) std::snprintf(disk, sizeof disk, "%s", path);
    unsetenv("FAULTY");
    unsetenv("FAULTY_DISK");
    unsetenv("LD_PRELOAD");
}

bool allocationFails() {
    if (control == nullptr || control->failAt.load(std::memory_order_relaxed) == 0) return false;
    if (control->allocations.fetch_add(1) + 1 != control->failAt) return false;
    std::array<void*, 40> callers{};
    constexpr char line[] = "This allocation fails:\n";
    syscall(SYS_write, STDERR_FILENO, line, sizeof line - 1);
    backtrace_symbols_fd(callers.data(), backtrace(callers.data(), callers.size()), STDERR_FILENO);
    errno = ENOMEM;
    return true;
}

bool isFull(int file) {
    struct stat status {};
    // The log may be a file, and is not meant.
    if (control == nullptr || control->diskFull == 0 || file <= STDERR_FILENO) return false;
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return false;
    errno = ENOSPC;
    return true;
}

// Copies the file as it stands into the folder of synced contents; `onlyFirst` leaves an earlier copy alone.
void keep(int file, bool onlyFirst) {
    struct stat status {};
    if (disk[0] == '\0' || file <= STDERR_FILENO || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return;
    const int error = errno;
    const std::lock_guard<std::mutex> lock(diskMutex);
    std::array<char, 320> kept{};
    std::array<char, 320> fresh{};
    std::snprintf(kept.data(), kept.size(), "%s/%lu-%lu", disk, static_cast<unsigned long>(status.st_dev),
                  static_cast<unsigned long>(status.st_ino));
    std::snprintf(fresh.data(), fresh.size(), "%s/new", disk);
    if (!onlyFirst || access(kept.data(), F_OK) != 0) {
        std::array<char, 64> own{};
        std::snprintf(own.data(), own.size(), "/proc/self/fd/%d", file);
        // Closing a second descriptor of the file drops the process's locks on it; nobody else opens these files.
        const int from = open(own.data(), O_RDONLY | O_CLOEXEC);
        const int to = open(fresh.data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        off_t at = 0;
        while (at < status.st_size && sendfile(to, from, &at, static_cast<size_t>(status.st_size - at)) > 0) {
        }
        close(to);
        close(from);
        rename(fresh.data(), kept.data());
    }
    errno = error;
}

}  // namespace

EXPORT void* malloc(size_t size) { return allocationFails() ? nullptr : __libc_malloc(size); }

EXPORT void* calloc(size_t count, size_t size) { return allocationFails() ? nullptr : __libc_calloc(count, size); }

EXPORT void* realloc(void* old, size_t size) { return allocationFails() ? nullptr : __libc_realloc(old, size); }

EXPORT void* memalign(size_t alignment, size_t size) {
    return allocationFails() ? nullptr : __libc_memalign(alignment, size);
}

EXPORT void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

EXPORT int posix_memalign(void** result, size_t alignment, size_t size) {
    void* memory = memalign(alignment, size);
    if (memory == nullptr) return ENOMEM;
    *result = memory;
    return 0;
}

EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return control != nullptr && control->noThreads != 0 ? EAGAIN : create(thread, attributes, function, argument);
}

EXPORT ssize_t write(int file, const void* data, size_t size) {
    if (isFull(file)) return -1;
    keep(file, true);
    return syscall(SYS_write, file, data, size);
}

EXPORT ssize_t writev(int file, const iovec* parts, int count) {
    if (isFull(file)) return -1;
    keep(file, true);
    return syscall(SYS_writev, file, parts, count);
}

EXPORT ssize_t pwrite64(int file, const void* data, size_t size, off64_t at) {
    if (isFull(file)) return -1;
    keep(file, true);
    return syscall(SYS_pwrite64, file, data, size, at);
}

EXPORT ssize_t pwrite(int file, const void* data, size_t size, off_t at) { return pwrite64(file, data, size, at); }

EXPORT int ftruncate64(int file, off64_t size) noexcept {
    keep(file, true);
    return static_cast<int>(syscall(SYS_ftruncate, file, size));
}

EXPORT int ftruncate(int file, off_t size) noexcept { return ftruncate64(file, size); }

EXPORT int fsync(int file) {
    const int result = static_cast<int>(syscall(SYS_fsync, file));
    if (result == 0) keep(file, false);
    return result;
}

EXPORT int fdatasync(int file) {
    const int result = static_cast<int>(syscall(SYS_fdatasync, file));
    if (result == 0) keep(file, false);
    return result;
}
