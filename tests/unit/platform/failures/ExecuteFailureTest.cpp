#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "FailingCalls.h"
#include "common/Descriptor.h"
#include "common/Execute.h"
#include "fakes/FewDescriptors.h"

namespace {

using failing::Call;
using failing::Calls;
using fakes::FewDescriptors;
using std::chrono::seconds;

// What the command ended with: "" for success, "not started: TEXT" or TEXT.
std::string outcome(const std::string& command) {
    try {
        os::execute(command, seconds(60));
    } catch (const os::CommandNotStartedException& failure) {
        return std::string("not started: ") + failure.what();
    } catch (const os::ExecuteException& failure) {
        return failure.what();
    }
    return "";
}

// From construction to destruction no descriptor of a process can be had, so that a thread waits for the command.
class OldKernel {
 private:
    Calls calls_{Call::pidfd_open, ENOSYS, 1000};
};

TEST(ExecuteFailureTest, FailsWithoutDescriptorsAndLeaksNone) {
    if (failing::sanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors";
    const std::string unstarted = "not started: Command 'true' cannot be started: Too many open files";
    const std::string unwatched = "Command 'true' cannot be waited for: Too many open files";
    const std::vector<std::string> expected{unstarted, unstarted, unwatched, ""};
    for (int round = 0; round < 2; ++round) {
        const OldKernel old;
        for (std::size_t left = 0; left < expected.size(); ++left) {
            const FewDescriptors few(left);
            EXPECT_EQ(outcome("true"), expected[left]) << left << " descriptors are left";
        }
    }
}

TEST(ExecuteFailureTest, InterruptedCallsAreRepeated) {
    const OldKernel old;
    for (const Call call : {Call::poll, Call::read, Call::waitid, Call::waitpid}) {
        const Calls interrupted(call, EINTR, 3);
        EXPECT_EQ(outcome("echo broken >&2; exit 3"),
                  "Command 'echo broken >&2; exit 3' ended with status 3: 'broken'");
        EXPECT_EQ(interrupted.failed(), 3);
    }
}

TEST(ExecuteFailureTest, AFailedWaitKillsTheCommand) {
    const Calls noMemory(Call::poll, ENOMEM);
    EXPECT_EQ(outcome("sleep 1000"), "Command 'sleep 1000' cannot be waited for: Cannot allocate memory");
}

TEST(ExecuteFailureTest, WithoutAThreadTheCommandIsKilled) {
    const OldKernel old;
    const Calls none(Call::pthread_create, EAGAIN);
    EXPECT_EQ(outcome("sleep 1000"), "Command 'sleep 1000' cannot be waited for: Resource temporarily unavailable");
}

TEST(ExecuteFailureTest, WithDescriptorsOfProcessesNoThreadIsNeeded) {
#ifdef SYS_pidfd_open
    const common::Descriptor own(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)));
    if (own.get() < 0) GTEST_SKIP() << "the kernel has none";
    const Calls none(Call::pthread_create, EAGAIN);
    EXPECT_EQ(outcome("true"), "");
#else
    GTEST_SKIP() << "the C library has none";
#endif
}

TEST(ExecuteFailureTest, LostStatusIsAFailure) {
    const Calls lost(Call::waitpid, ECHILD);
    EXPECT_EQ(outcome("true"), "Command 'true' cannot be waited for: No child processes");
}

TEST(ExecuteFailureTest, StandardErrorThatCannotBeReadIsLeftOut) {
    const Calls broken(Call::read, EIO);
    EXPECT_EQ(outcome("echo broken >&2; exit 3"), "Command 'echo broken >&2; exit 3' ended with status 3");
}

}  // namespace
