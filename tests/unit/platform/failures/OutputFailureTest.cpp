#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "FailingCalls.h"
#include "Output.h"

namespace {

using failing::Call;
using failing::Calls;

std::string notice(std::size_t lost) { return std::to_string(lost) + " lost\n"; }

class OutputFailureTest : public testing::Test {
 protected:
    void SetUp() override {
        ASSERT_EQ(::pipe(ends_.data()), 0);
        ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    }
    void TearDown() override {
        for (const int end : ends_) ::close(end);
    }

    // What the reader has got.
    std::string seen() const {
        std::string all;
        std::array<char, 4096> buffer{};
        for (ssize_t size = 0; (size = ::read(ends_[0], buffer.data(), buffer.size())) > 0;) {
            all.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return all;
    }

    std::array<int, 2> ends_{-1, -1};
};

TEST_F(OutputFailureTest, InterruptedWriteIsRepeated) {
    dbg::Output output(ends_[1]);
    const Calls interrupted(Call::write, EINTR, 2);
    output.write("line\n", notice);
    EXPECT_EQ(interrupted.failed(), 2);
    EXPECT_EQ(seen(), "line\n");
}

TEST_F(OutputFailureTest, FullPipeIsTriedAgain) {
    dbg::Output output(ends_[1]);
    const Calls full(Call::write, EAGAIN);
    output.write("line\n", notice);
    EXPECT_EQ(seen(), "line\n");
}

TEST_F(OutputFailureTest, LineThatCannotBeWrittenIsCounted) {
    dbg::Output output(ends_[1]);
    {
        const Calls broken(Call::write, EIO);
        output.write("line\n", notice);
    }
    output.write("next\n", notice);
    EXPECT_EQ(seen(), "1 lost\nnext\n");
}

TEST_F(OutputFailureTest, DescriptorThatCannotBeExaminedIsUsedAllTheSame) {
    dbg::Output output(ends_[1]);
    const Calls refused(Call::fstat, EOVERFLOW);
    output.write("line\n", notice);
    EXPECT_EQ(refused.failed(), 1);
    EXPECT_EQ(seen(), "line\n");
}

TEST_F(OutputFailureTest, TheLineAfterAPartOfOneBeginsOnALineOfItsOwn) {
    dbg::Output output(ends_[1]);
    output.beginShutdown();  // for the shorter time-out
    const std::string large(1000000, '.');
    output.write(large + "\n", notice);
    std::array<char, 1000000> buffer{};
    const ssize_t size = ::read(ends_[0], buffer.data(), buffer.size());
    ASSERT_GT(size, 0);
    EXPECT_EQ(std::string(buffer.data(), static_cast<std::size_t>(size)),
              large.substr(0, static_cast<std::size_t>(size)));
    output.write("next\n", notice);
    EXPECT_EQ(seen(), "\n1 lost\nnext\n");
}

}  // namespace
