#include "Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

std::string notice(std::size_t lost) { return std::to_string(lost) + " lost\n"; }

std::string line(std::size_t number) {
    std::string text = std::to_string(number);
    text.resize(999, '.');
    return text + "\n";
}

enum class Kind { pipe, socket, terminal };

// A pipe, socket or terminal whose reader reads only when told to.
class OutputTest : public testing::TestWithParam<Kind> {
 protected:
    OutputTest() {
        switch (GetParam()) {
            case Kind::pipe:
                made_ = ::pipe(ends_.data()) == 0;
                break;
            case Kind::socket:
                made_ = ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_.data()) == 0;
                break;
            case Kind::terminal:
                openTerminal();
                break;
        }
        ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    }
    ~OutputTest() override {
        for (const int end : ends_) ::close(end);
    }
    void SetUp() override { ASSERT_TRUE(made_); }

    // The first end is the terminal's master. The terminal does not translate line breaks.
    void openTerminal() {
        ends_[0] = ::posix_openpt(O_RDWR | O_NOCTTY);
        std::array<char, 64> name{};
        if (::grantpt(ends_[0]) != 0 || ::unlockpt(ends_[0]) != 0) return;
        if (::ptsname_r(ends_[0], name.data(), name.size()) != 0) return;
        ends_[1] = ::open(name.data(), O_RDWR | O_NOCTTY);
        termios settings{};
        if (::tcgetattr(ends_[1], &settings) != 0) return;
        settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        made_ = ::tcsetattr(ends_[1], TCSANOW, &settings) == 0;
    }

    std::string read() {
        std::string all;
        std::array<char, 4096> buffer{};
        for (ssize_t size = 0; (size = ::read(ends_[0], buffer.data(), buffer.size())) > 0;) {
            all.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return all;
    }

    // Writes lines of equal length until one is lost. Returns how many were written.
    std::size_t fill(dbg::Output& output) {
        std::size_t lines = 0;
        for (auto begin = Clock::now(); Clock::now() - begin < dbg::Output::lineTimeout / 2; ++lines) {
            begin = Clock::now();
            output.write(line(lines), notice);
        }
        return lines - 1;
    }
    std::array<int, 2> ends_{-1, -1};
    bool made_ = false;
};

TEST_P(OutputTest, StalledReaderDelaysOneLineAndDropsTheNext) {
    dbg::Output output(ends_[1]);
    const std::size_t written = fill(output);
    const auto begin = Clock::now();
    for (int more = 0; more < 100; ++more) output.write("dropped\n", notice);
    EXPECT_LT(Clock::now() - begin, dbg::Output::lineTimeout);

    std::string expected;
    for (std::size_t number = 0; number < written; ++number) expected += line(number);
    std::string seen = read();
    EXPECT_EQ(seen.substr(0, expected.size()), expected);
    output.write("here again\n", notice);
    seen = seen.substr(expected.size()) + read();
    const std::string end = "101 lost\nhere again\n";
    ASSERT_GE(seen.size(), end.size());
    EXPECT_EQ(seen.substr(seen.size() - end.size()), end);
    // Before it is the part of the lost line that was written, and a line break.
    if (seen.size() > end.size()) {
        EXPECT_EQ(seen[seen.size() - end.size() - 1], '\n');
    }
}

// Room for a short line is not yet a reader that keeps up.
TEST(OutputToASocketTest, LinesAfterALossDoNotWaitWhileTheReaderIsFarBehind) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    dbg::Output output(ends[1]);
    std::atomic<unsigned> losses{0};
    const auto counted = [&](std::size_t lost) {
        ++losses;
        return notice(lost);
    };
    while (losses == 0) output.write(line(0), counted);  // a notice is only made after a loss
    std::array<char, 1000> buffer{};
    const auto begin = Clock::now();
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(::read(ends[0], buffer.data(), buffer.size()), 1000);
        for (int more = 0; more < 5; ++more) output.write(line(1), counted);
    }
    EXPECT_LT(Clock::now() - begin, dbg::Output::lineTimeout);
    for (const int end : ends) ::close(end);
}

TEST(OutputToASocketTest, StalledReaderOfWhatReplacesItIsWaitedForOnce) {
    std::array<int, 2> socket{};
    std::array<int, 2> pipe{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, socket.data()), 0);
    ASSERT_EQ(::pipe(pipe.data()), 0);
    ::fcntl(pipe[1], F_SETFL, O_NONBLOCK);
    while (::write(pipe[1], line(0).data(), 1000) > 0) {
    }
    ::fcntl(pipe[1], F_SETFL, 0);
    dbg::Output output(socket[1]);
    output.write("first\n", notice);
    ASSERT_EQ(::dup2(pipe[1], socket[1]), socket[1]);
    const auto begin = Clock::now();
    for (int more = 0; more < 100; ++more) output.write(line(1), notice);
    EXPECT_LT(Clock::now() - begin, 2 * dbg::Output::lineTimeout);
    for (const int end : {socket[0], socket[1], pipe[0], pipe[1]}) ::close(end);
}

TEST_P(OutputTest, SlowReaderGetsEveryLine) {
    dbg::Output output(ends_[1]);
    constexpr std::size_t lines = 2000;
    std::string seen;
    std::thread reader([&] {
        const auto end = Clock::now() + std::chrono::seconds(20);
        while (seen.size() < lines * 1000 && Clock::now() < end) seen += read();
    });
    for (std::size_t number = 0; number < lines; ++number) output.write(line(number), notice);
    reader.join();
    EXPECT_EQ(seen.size(), lines * 1000);
    EXPECT_EQ(seen.find("lost"), std::string::npos);
}

TEST_P(OutputTest, AllLinesShareOneTimeoutDuringShutdown) {
    dbg::Output output(ends_[1]);
    output.beginShutdown();
    const auto begin = Clock::now();
    for (std::size_t number = 0; number < 2000; ++number) output.write(line(number), notice);
    EXPECT_LT(Clock::now() - begin, dbg::Output::lineTimeout);
}

TEST_P(OutputTest, LinesWithoutAReaderAreDroppedAtOnce) {
    ::close(ends_[0]);
    ends_[0] = -1;
    ::signal(SIGPIPE, SIG_IGN);
    dbg::Output output(ends_[1]);
    const auto begin = Clock::now();
    for (int number = 0; number < 100; ++number) output.write("x\n", notice);
    EXPECT_LT(Clock::now() - begin, dbg::Output::lineTimeout);
}

// The reader reads a little now and then, too slowly for the line.
TEST_P(OutputTest, LineThatIsReadTooSlowlyIsDropped) {
    dbg::Output output(ends_[1]);
    std::atomic<bool> ended{false};
    std::thread reader([&] {
        std::array<char, 1024> buffer{};
        std::mutex mutex;
        std::condition_variable never;
        while (!ended) {
            [[maybe_unused]] const ssize_t size = ::read(ends_[0], buffer.data(), buffer.size());
            std::unique_lock<std::mutex> lock(mutex);
            never.wait_for(lock, std::chrono::milliseconds(100));
        }
    });
    const auto begin = Clock::now();
    output.write(std::string(1000000, 'x') + "\n", notice);
    const auto taken = Clock::now() - begin;
    ended = true;
    reader.join();
    EXPECT_LT(taken, 2 * dbg::Output::lineTimeout);
}

TEST_P(OutputTest, BeginShutdownDoesNotBlockOnAWaitingLine) {
    dbg::Output output(ends_[1]);
    std::atomic<bool> waiting{false};
    std::thread writer([&] {
        waiting = true;
        output.write(std::string(1000000, 'x') + "\n", notice);
    });
    while (!waiting) std::this_thread::yield();
    const auto begin = Clock::now();
    output.beginShutdown();
    EXPECT_LT(Clock::now() - begin, dbg::Output::shutdownTimeout);
    writer.join();
    EXPECT_LT(Clock::now() - begin, dbg::Output::lineTimeout);
}

TEST_P(OutputTest, FollowsAReopenedDescriptor) {
    std::array<int, 2> other{};
    ASSERT_EQ(::pipe(other.data()), 0);
    dbg::Output output(ends_[1]);
    output.write("first\n", notice);
    ASSERT_EQ(::dup2(other[1], ends_[1]), ends_[1]);
    output.write("second\n", notice);
    std::array<char, 64> buffer{};
    EXPECT_EQ(read(), "first\n");
    EXPECT_EQ(::read(other[0], buffer.data(), buffer.size()), 7);
    for (const int end : other) ::close(end);
}

// The kind of a file is not checked for each line.
TEST_P(OutputTest, LineReachesWhatReplacesAFile) {
    std::array<char, 32> name{"/tmp/outputXXXXXX"};
    const int file = ::mkstemp(name.data());
    ASSERT_GE(file, 0);
    ::unlink(name.data());
    dbg::Output output(file);
    output.write("first\n", notice);
    EXPECT_EQ(::lseek(file, 0, SEEK_END), 6);
    ASSERT_EQ(::dup2(ends_[1], file), file);
    output.write("second\n", notice);
    EXPECT_EQ(read(), "second\n");
    ::close(file);
}

std::string nameOf(const testing::TestParamInfo<Kind>& kind) {
    if (kind.param == Kind::pipe) return "Pipe";
    return kind.param == Kind::socket ? "Socket" : "Terminal";
}

INSTANTIATE_TEST_SUITE_P(Kinds, OutputTest, testing::Values(Kind::pipe, Kind::socket, Kind::terminal), nameOf);

}  // namespace
