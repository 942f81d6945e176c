#include "common/Execute.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class ExecuteTest : public testing::Test {
 protected:
    ExecuteTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "zav-XXXXXX").string();
        folder_ = mkdtemp(pattern.data());
    }
    ~ExecuteTest() override { std::filesystem::remove_all(folder_); }
    ExecuteTest(const ExecuteTest&) = delete;
    ExecuteTest& operator=(const ExecuteTest&) = delete;

    std::string file(const std::string& name) const { return folder_ + "/" + name; }
    /// The path of a program that does this.
    std::string script(const std::string& commands) const {
        std::ofstream(file("script")) << "#!/bin/sh\n" << commands << "\n";
        chmod(file("script").c_str(), 0700);
        return file("script");
    }
    static std::string content(const std::string& path) {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static std::string failure(const std::string& command, milliseconds timeout = seconds(10)) {
        try {
            os::execute(command, timeout);
        } catch (const os::ExecuteException& e) {
            return e.what();
        }
        return "no failure";
    }

    std::string folder_;
};

TEST_F(ExecuteTest, RunsAShellCommandToItsEnd) {
    os::execute("echo one > " + file("a") + " && echo two >> " + file("a"), seconds(10));
    EXPECT_EQ(content(file("a")), "one\ntwo\n");
}

TEST_F(ExecuteTest, AProgramTakesThePlaceOfItsShell) {
    const std::string program = script("echo $PPID $1 > " + file("parent"));
    os::execute(program + " -a=b", seconds(10));
    EXPECT_EQ(content(file("parent")), std::to_string(getpid()) + " -a=b\n");
    os::execute("sh " + program + " c", seconds(10));
    EXPECT_EQ(content(file("parent")), std::to_string(getpid()) + " c\n");
}

TEST_F(ExecuteTest, TheShellDoesWhatIsNoProgram) {
    for (const char* const command : {"cd /", "exit 0", ":", "a=b", "a=b true", "true;", "true && true", "", " true ",
                                      "test 'a b' = \"a b\"", "if true\nthen true\nfi"}) {
        EXPECT_NO_THROW(os::execute(command, seconds(10))) << command;
    }
}

TEST_F(ExecuteTest, ANonZeroExitThrowsWithStatusAndStandardError) {
    EXPECT_EQ(failure("echo broken >&2; exit 3"), "Command 'echo broken >&2; exit 3' ended with status 3: 'broken'");
}

TEST_F(ExecuteTest, ACommandThatDoesNotExistThrows) {
    EXPECT_NE(failure("/no/such/program").find("ended with status 127"), std::string::npos);
}

TEST_F(ExecuteTest, ACommandThatCannotBeStartedThrows) {
    const std::string command = "true " + std::string(200000, 'x');  // the kernel takes 128 KiB
    EXPECT_EQ(failure(command), "Command '" + command + "' cannot be started: Argument list too long");
    EXPECT_NO_THROW(os::execute("true " + std::string(100000, 'x'), seconds(10)));
}

TEST_F(ExecuteTest, DeathByASignalThrows) {
    EXPECT_EQ(failure("kill -9 $$"), "Command 'kill -9 $$' was ended by signal 9");
    const std::string program = script("kill -9 $$");
    EXPECT_EQ(failure(program), "Command '" + program + "' was ended by signal 9");
}

TEST_F(ExecuteTest, ATimeOutEndsTheWholeGroup) {
    // The grandchild holds a lock until it dies: the lock is free once execute has thrown and the group is gone.
    const std::string fifo = file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(
        failure("sh -c 'exec 3<>" + fifo + "; echo $$ > " + file("pid") + "; sleep 600' & wait", milliseconds(500))
            .find("took longer than 500 ms and was ended"),
        std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(60));
    const std::string pid = content(file("pid"));
    ASSERT_FALSE(pid.empty());
    for (int tries = 0; tries < 6000 && kill(std::stoi(pid), 0) == 0; ++tries) {
        if (content("/proc/" + std::to_string(std::stoi(pid)) + "/stat").find(") Z ") != std::string::npos) break;
        usleep(10000);
    }
    const std::string state = content("/proc/" + std::to_string(std::stoi(pid)) + "/stat");
    EXPECT_TRUE(state.empty() || state.find(") Z ") != std::string::npos) << state;
}

TEST_F(ExecuteTest, AProcessLeftBehindDoesNotDelayTheEnd) {
    const auto start = std::chrono::steady_clock::now();
    os::execute("sleep 600 & echo $! > " + file("pid"), seconds(500));  // it keeps standard error open
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(60));
    EXPECT_EQ(kill(std::stoi(content(file("pid"))), SIGKILL), 0) << "it is still there";
}

TEST_F(ExecuteTest, ALostExitStatusIsAFailure) {
    const auto before = signal(SIGCHLD, SIG_IGN);
    const std::string text = failure("exit 0");
    signal(SIGCHLD, before);
    EXPECT_EQ(text, "Command 'exit 0' cannot be waited for: No child processes");
}

TEST_F(ExecuteTest, CommandsRunBesideEachOther) {
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int thread = 1; thread <= 8; ++thread) {
        threads.emplace_back([&right, thread] {
            for (int round = 0; round < 10; ++round) {
                const std::string command = "exit " + std::to_string(thread);
                const std::string expected = "Command '" + command + "' ended with status " + std::to_string(thread);
                if (failure(command, seconds(100)) == expected) ++right;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, 80);
}

TEST_F(ExecuteTest, AShutdownEndsACommandOnceItIsOverdue) {
    common::StopSignal stop(milliseconds(0));
    EXPECT_NO_THROW(os::execute("sleep 0.3", seconds(10), &stop)) << "no shutdown yet";
    stop.stop();
    const auto start = std::chrono::steady_clock::now();
    try {
        os::execute("sleep 600", seconds(600), &stop);
        ADD_FAILURE() << "the command ran to its end";
    } catch (const os::ExecuteException& e) {
        EXPECT_STREQ(e.what(), "Command 'sleep 600' was ended: the process is shutting down");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(60));
}

TEST_F(ExecuteTest, WhatNeverRanIsToldApartFromWhatFailed) {
    EXPECT_THROW(os::execute("/no/such/program", seconds(10)), os::CommandNotStartedException);
    EXPECT_THROW(os::execute("/dev/null", seconds(10)), os::CommandNotStartedException);
    try {
        os::execute("exit 1", seconds(10));
    } catch (const os::CommandNotStartedException&) {
        ADD_FAILURE() << "it ran";
    } catch (const os::ExecuteException&) {
    }
}

TEST_F(ExecuteTest, MuchOutputNeitherBlocksNorFillsTheText) {
    const std::string text = failure("yes error | head -c 1000000 >&2; yes out | head -c 1000000; exit 1");
    EXPECT_NE(text.find("ended with status 1"), std::string::npos);
    EXPECT_LT(text.size(), 2000U);
}

TEST_F(ExecuteTest, TheChildHasNoDescriptorsOfOurs) {
    const int inherited = dup(STDERR_FILENO);  // without close-on-exec
    ASSERT_GE(inherited, 3);
    EXPECT_NO_THROW(os::execute("test ! -e /proc/self/fd/" + std::to_string(inherited), seconds(10)));
    const int high = fcntl(STDERR_FILENO, F_DUPFD, 700);
    ASSERT_GE(high, 700);
    EXPECT_NO_THROW(os::execute("test ! -e /proc/self/fd/" + std::to_string(high), seconds(10)));
    close(inherited);
    close(high);
    const int input = dup(STDIN_FILENO);
    const int zeros = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    dup2(zeros, STDIN_FILENO);
    EXPECT_NO_THROW(os::execute("test $(readlink /proc/self/fd/0) = /dev/null", seconds(10)));
    dup2(input, STDIN_FILENO);
    close(zeros);
    close(input);
}

TEST_F(ExecuteTest, TheChildHasDefaultSignalHandling) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto oldPipe = signal(SIGPIPE, SIG_IGN);
    os::execute("grep -E '^Sig(Blk|Ign)' /proc/self/status > " + file("masks"), seconds(10));
    signal(SIGPIPE, oldPipe);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::istringstream masks(content(file("masks")));
    std::string name;
    std::uint64_t blockedInChild = 0;
    std::uint64_t ignoredInChild = 0;
    masks >> name >> std::hex >> blockedInChild >> name >> ignoredInChild;
    ASSERT_TRUE(masks);
    EXPECT_EQ(blockedInChild, 0U);
    EXPECT_EQ(ignoredInChild & ~std::uint64_t{0x180000000},
              0U);  // 32 and 33 belong to the C library, which ignores them itself
}

}  // namespace
