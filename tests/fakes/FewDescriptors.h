// Leaves a process few descriptors, and the programs that it starts meanwhile.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>

namespace fakes {

/// From construction to destruction the process can open only so many more descriptors.
class FewDescriptors {
 public:
    explicit FewDescriptors(rlim_t left) {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        rlimit few = before_;
        few.rlim_cur = 0;
        for (rlim_t free = 0; free < left || isOpen(few.rlim_cur); ++few.rlim_cur) {
            if (!isOpen(few.rlim_cur)) ++free;
        }
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
    static bool isOpen(rlim_t descriptor) { return ::fcntl(static_cast<int>(descriptor), F_GETFD) >= 0; }

    rlimit before_{};
};

}  // namespace fakes
