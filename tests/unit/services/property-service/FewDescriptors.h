// Leaves a process few descriptors, and the programs that it starts meanwhile.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

// Sanitizers open files for their checks, or map memory; without either they report what is not there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

/// This process gets `count` descriptors beyond the open ones, until the destructor restores its limit.
class FewDescriptors {
 public:
    explicit FewDescriptors(rlim_t count) {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const int next = ::dup(STDERR_FILENO);  // the lowest that is free
        ::close(next);
        rlimit few = before_;
        few.rlim_cur = static_cast<rlim_t>(next) + count;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
    rlimit before_{};
};
