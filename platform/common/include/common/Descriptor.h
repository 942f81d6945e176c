// A file descriptor and its owner, which is not thread-safe; the reasons of failed calls.
#pragma once

#include <unistd.h>

#include <string>
#include <utility>

namespace common {

class Descriptor {
 public:
    Descriptor() = default;
    /// Takes ownership of `fd`; a negative value means none.
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    /// May be called again.
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void reset(int fd) {
        close();
        fd_ = fd;
    }
    /// Gives up ownership: the caller closes what this returns.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    /// Negative if there is none.
    int get() const { return fd_; }

 private:
    int fd_ = -1;
};

/// The system's text for an errno value. Any thread; not std::generic_category, whose text some libraries keep in a
/// shared buffer.
std::string reasonOf(int error);

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed. Otherwise the next file or socket would get that
/// number, and with it the log lines. Call first in `main`; another thread that opens a file at the same moment may get
/// the number instead.
void occupyStandardDescriptors();

}  // namespace common
