// Owns a file descriptor and closes it. For one thread at a time. Also keeps the standard descriptors taken.
#pragma once

#include <unistd.h>

namespace common {

class Descriptor {
 public:
    Descriptor() = default;
    /// Takes over `fd`; a negative one is none.
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    /// Repeatable.
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void reset(int fd) {
        close();
        fd_ = fd;
    }
    /// Negative: none.
    int get() const { return fd_; }

 private:
    int fd_ = -1;
};

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed, so that no file or socket of ours becomes one of
/// them and receives log lines. The first thing that a program does; before it starts threads.
void occupyStandardDescriptors();

}  // namespace common
