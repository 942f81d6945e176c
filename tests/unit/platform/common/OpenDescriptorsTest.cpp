#include "OpenDescriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "common/Descriptor.h"

namespace {

TEST(OpenDescriptorsTest, FindsTheHighest) {
    const common::Descriptor high(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 700));
    ASSERT_GE(high.get(), 700);
    EXPECT_EQ(common::highestOpenDescriptor(), high.get());
}

TEST(OpenDescriptorsTest, FindsTheHighestWithoutTheKernelsListing) {
    const common::Descriptor high(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 700));
    ASSERT_GE(high.get(), 700);
    EXPECT_EQ(common::highestOpenDescriptor("/no/such/folder"), high.get());
}

}  // namespace
