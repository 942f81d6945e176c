#include "common/Descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

namespace {

bool isDevNull(int descriptor) {
    struct stat status {};
    struct stat device {};
    return fstat(descriptor, &status) == 0 && stat("/dev/null", &device) == 0 && status.st_rdev == device.st_rdev;
}

// Runs in a process of its own, because it closes the standard descriptors.
[[noreturn]] void occupyClosedDescriptors() {
    const int kept = ::fcntl(STDOUT_FILENO, F_DUPFD, 10);
    ::close(STDIN_FILENO);
    ::close(STDERR_FILENO);
    struct stat before {};
    struct stat after {};
    fstat(STDOUT_FILENO, &before);
    common::occupyStandardDescriptors();
    fstat(STDOUT_FILENO, &after);
    const bool untouched = before.st_ino == after.st_ino && before.st_dev == after.st_dev;
    const int next = ::open("/dev/null", O_RDONLY);
    std::_Exit(
        isDevNull(STDIN_FILENO) && isDevNull(STDERR_FILENO) && untouched && next > STDERR_FILENO && kept > 0 ? 0 : 1);
}

TEST(DescriptorTest, IsClosedUnlessReleased) {
    int released = -1;
    int closed = -1;
    {
        common::Descriptor first(::open("/dev/null", O_RDONLY));
        const common::Descriptor second(::open("/dev/null", O_RDONLY));
        closed = second.get();
        released = first.release();
        EXPECT_LT(first.get(), 0);
    }
    EXPECT_EQ(::fcntl(closed, F_GETFD), -1);
    EXPECT_GE(::fcntl(released, F_GETFD), 0);
    ::close(released);
}

TEST(DescriptorTest, ClosedStandardDescriptorsBecomeDevNull) {
    EXPECT_EXIT(occupyClosedDescriptors(), testing::ExitedWithCode(0), "");
}

}  // namespace
