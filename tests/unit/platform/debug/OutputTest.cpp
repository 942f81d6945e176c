#include "Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

std::string notice(std::size_t lost) { return std::to_string(lost) + " lost\n"; }

// A pipe or a socket whose reader reads when it is told to.
class OutputTest : public testing::TestWithParam<bool> {
 protected:
    OutputTest() {
        const bool made =
            GetParam() ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_.data()) == 0 : ::pipe(ends_.data()) == 0;
        if (!made) throw std::runtime_error("no pipe");
        if (GetParam()) std::swap(ends_[0], ends_[1]);
        ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    }
    ~OutputTest() override {
        for (const int end : ends_) ::close(end);
    }

    std::string read() {
        std::string all;
        std::array<char, 4096> buffer{};
        for (ssize_t size = 0; (size = ::read(ends_[0], buffer.data(), buffer.size())) > 0;) {
            all.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return all;
    }

    // Until a line is lost; all lines of one length.
    std::size_t fill(dbg::Output& output) {
        std::size_t lines = 0;
        for (auto begin = Clock::now(); Clock::now() - begin < dbg::Output::patience / 2; ++lines) {
            begin = Clock::now();
            output.write(line(lines), notice);
        }
        return lines - 1;
    }
    static std::string line(std::size_t number) {
        std::string text = std::to_string(number);
        text.resize(999, '.');
        return text + "\n";
    }

    std::array<int, 2> ends_{};
};

TEST_P(OutputTest, AReaderThatStopsReadingCostsOneWaitAndThenLines) {
    dbg::Output output(ends_[1]);
    const std::size_t written = fill(output);
    const auto begin = Clock::now();
    for (int more = 0; more < 100; ++more) output.write("dropped\n", notice);
    EXPECT_LT(Clock::now() - begin, dbg::Output::patience);

    std::string expected;
    for (std::size_t number = 0; number < written; ++number) expected += line(number);
    std::string seen = read();
    EXPECT_EQ(seen.substr(0, expected.size()), expected);
    output.write("here again\n", notice);
    seen = seen.substr(expected.size()) + read();
    const std::string end = "101 lost\nhere again\n";
    ASSERT_GE(seen.size(), end.size());
    EXPECT_EQ(seen.substr(seen.size() - end.size()), end);
    // What stands before is the part of the lost line that still fitted, ended as a line.
    if (seen.size() > end.size()) {
        EXPECT_EQ(seen[seen.size() - end.size() - 1], '\n');
    }
}

TEST_P(OutputTest, ASlowReaderGetsEveryLine) {
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

TEST_P(OutputTest, DuringAShutdownAllLinesTogetherWaitBriefly) {
    dbg::Output output(ends_[1]);
    output.beginShutdown();
    const auto begin = Clock::now();
    for (std::size_t number = 0; number < 2000; ++number) output.write(line(number), notice);
    EXPECT_LT(Clock::now() - begin, dbg::Output::patience);
}

TEST_P(OutputTest, LinesWithoutAReaderAreDroppedAtOnce) {
    ::close(ends_[0]);
    ends_[0] = -1;
    ::signal(SIGPIPE, SIG_IGN);
    dbg::Output output(ends_[1]);
    const auto begin = Clock::now();
    for (int number = 0; number < 100; ++number) output.write("x\n", notice);
    EXPECT_LT(Clock::now() - begin, dbg::Output::patience);
}

INSTANTIATE_TEST_SUITE_P(Kinds, OutputTest, testing::Values(false, true),
                         [](const auto& kind) { return kind.param ? "Socket" : "Pipe"; });

}  // namespace
