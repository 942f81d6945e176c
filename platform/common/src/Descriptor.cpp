#include "common/Descriptor.h"

#include <fcntl.h>

#include <cstring>

namespace common {

namespace {

// Depending on the C library, strerror_r returns the text, or whether it wrote the text into the buffer.
[[maybe_unused]] const char* textOf(const char* text, const char* /*buffer*/) { return text; }
[[maybe_unused]] const char* textOf(int error, const char* buffer) { return error == 0 ? buffer : "unknown error"; }

}  // namespace

std::string reasonOf(int error) {
    char buffer[128] = "";
    return textOf(strerror_r(error, buffer, sizeof buffer), buffer);
}

void occupyStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        while (::fcntl(descriptor, F_GETFD) < 0) {
            // open returns the lowest free number: this one, unless another thread has just got it.
            const int opened = ::open("/dev/null", O_RDWR);
            if (opened > STDERR_FILENO) ::close(opened);
            if (opened < 0) break;
        }
    }
}

}  // namespace common
