// Wakes a thread that polls descriptors. Threads: any thread may wake; the polling thread drains.
#pragma once

#include "common/Descriptor.h"

namespace ipc {

class Waker {
 public:
    /// Throws IPCException if the system has no free descriptor.
    Waker();

    /// Readable between `wake` and `drain`.
    int descriptor() const { return event_.get(); }
    void wake() const;
    void drain() const;

 private:
    const common::Descriptor event_;
};

}  // namespace ipc
