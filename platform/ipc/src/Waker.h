// Wakes the thread that waits for descriptors. Threads: any may wake; the one that waits drains.
#pragma once

#include "common/Descriptor.h"

namespace ipc {

class Waker {
 public:
    /// Throws IPCException when the system has no descriptor left.
    Waker();

    /// Readable from `wake` until `drain`.
    int descriptor() const { return event_.get(); }
    void wake() const;
    void drain() const;

 private:
    const common::Descriptor event_;
};

}  // namespace ipc
