// Calls of the C library that fail on demand. FailingCalls.cpp defines the functions themselves, in place of the
// library's, so it belongs to a test program of its own. Whatever is not told to fail reaches the kernel.
#pragma once

namespace failing {

enum class Call {
    fchmod,
    flock,
    fstat,
    fstatvfs,
    fsync,
    ftruncate,
    getaddrinfo,
    pidfd_open,
    poll,
    pread,
    pthread_create,
    read,
    syncfs,
    waitid,
    waitpid,
    write,
    count
};

/// From construction to destruction, `times` calls fail with `error` (of errno.h; of netdb.h for getaddrinfo), in
/// whatever thread, after `spared` that do not.
class Calls {
 public:
    Calls(Call call, int error, int times = 1, int spared = 0);
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;
    ~Calls();

    /// So many have failed until now.
    int failed() const;

 private:
    Call call_;
    int times_;
};

/// UBSan opens descriptors to examine an object that is thrown, and takes it for damaged where there are none.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitizerNeedsDescriptors = true;
#else
constexpr bool sanitizerNeedsDescriptors = false;
#endif

}  // namespace failing
