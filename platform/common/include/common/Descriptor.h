// A file descriptor and its owner, which is not thread-safe; the reasons of failed calls.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <system_error>
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

/// The system's text for an errno value.
inline std::string reasonOf(int error) { return std::generic_category().message(error); }

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed. Otherwise the next file or socket would get that
/// number, and with it the log lines. Call first in `main`, before any thread is started.
inline void occupyStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        // open returns the lowest free number, which is this one.
        if (::fcntl(descriptor, F_GETFD) < 0) ::open("/dev/null", O_RDWR);
    }
}

}  // namespace common
