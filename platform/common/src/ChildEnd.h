// Makes the end of a child process something that poll can wait for, on every kernel and C library: a thread of its own
// waits for the child and then closes a pipe. No signal handler, no polling, and processes that the child leaves behind
// do not delay it. The child stays a zombie until its owner reaps it, so its number cannot be reused meanwhile.
#pragma once

#include <sys/types.h>

#include <thread>

#include "common/Descriptor.h"

namespace common {

class ChildEnd {
 public:
    /// Throws std::system_error if no descriptor or no thread is left.
    explicit ChildEnd(pid_t child);
    ChildEnd(const ChildEnd&) = delete;
    ChildEnd& operator=(const ChildEnd&) = delete;
    /// Blocks until the child has ended. Reap it only after this.
    ~ChildEnd();

    /// Reports POLLHUP once the child has ended.
    int descriptor() const { return ended_.get(); }

 private:
    Descriptor ended_;
    std::thread waiting_;
};

}  // namespace common
