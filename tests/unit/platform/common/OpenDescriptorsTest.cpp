#include "OpenDescriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>

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

// Both ways, as a C library has one or the other.
TEST(OpenDescriptorsTest, WhatIsOpenedBeforeTheChildStartsIsClosedToo) {
    for (const auto add : {common::closeInChild, common::closeEachInChild}) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        add(actions);
        // The worst case: all below are taken.
        const int next = common::highestOpenDescriptor() + 1;
        std::array<common::Descriptor, 20> openedMeanwhile;
        for (common::Descriptor& opened : openedMeanwhile) opened.reset(fcntl(STDERR_FILENO, F_DUPFD, next));
        ASSERT_GE(openedMeanwhile.back().get(), next);

        std::string shell = "sh";
        std::string option = "-c";
        // Reading the folder takes the shell a descriptor, which is closed by the time that it looks at the names.
        std::string command =
            "for file in /proc/$$/fd/*; do [ -L $file ] || continue; case ${file##*/} in 0|1|2) ;; *) exit 1 ;; esac; "
            "done";
        const std::array<char*, 4> arguments{shell.data(), option.data(), command.data(), nullptr};
        pid_t child = -1;
        ASSERT_EQ(posix_spawn(&child, "/bin/sh", &actions, nullptr, arguments.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
}

}  // namespace
