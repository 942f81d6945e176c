#include "common/Descriptor.h"

#include <fcntl.h>

namespace common {

void occupyStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        // open returns the lowest free number, which is this one.
        if (::fcntl(descriptor, F_GETFD) < 0) ::open("/dev/null", O_RDWR);
    }
}

}  // namespace common
