#include "common/Memory.h"

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

constexpr int cannotTrace = 77;
constexpr std::size_t size = std::size_t{1} << 20U;
// Constants, not zeros, which would have no place in the file.
constexpr std::array<unsigned char, size> constants = [] {
    std::array<unsigned char, size> bytes{};
    for (std::size_t i = 0; i < size; i += 64) bytes.at(i) = 7;
    return bytes;
}();

unsigned sumOfConstants() {
    unsigned sum = 0;
    for (std::size_t i = 0; i < size; i += 64) sum += const_cast<const volatile unsigned char&>(constants[i]);
    return sum;
}

/// Of the mapping that has the address, in kB: what /proc/self/smaps says in the row.
std::size_t kilobytes(const void* address, const std::string& row) {
    std::ifstream maps("/proc/self/smaps");
    bool isHere = false;
    for (std::string line; std::getline(maps, line);) {
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        std::istringstream words(line);
        if (words >> std::hex >> begin >> dash >> end && dash == '-') {
            const auto at = reinterpret_cast<std::uintptr_t>(address);
            isHere = begin <= at && at < end;
        } else if (isHere && line.rfind(row + ":", 0) == 0) {
            return std::stoul(line.substr(row.size() + 1));
        }
    }
    throw std::runtime_error("no such mapping");
}

TEST(Memory, ReleasedCodeAndConstantsAreThereWhenTheyAreUsedAgain) {
    constexpr unsigned expected = size / 64 * 7;
    ASSERT_EQ(sumOfConstants(), expected);
    ASSERT_GE(kilobytes(constants.data(), "Rss"), size / 1024);
    common::releaseCode();
    EXPECT_LT(kilobytes(constants.data(), "Rss"), size / 1024);
    EXPECT_EQ(sumOfConstants(), expected);
}

TEST(Memory, ReleasingCodeKeepsVariables) {
    static unsigned initialised = 5;
    initialised = 6;
    common::releaseCode();
    EXPECT_EQ(initialised, 6U);
}

// Breakpoints are changes to the code.
TEST(Memory, CodeStaysWhileADebuggerIsAttached) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(cannotTrace);
        const unsigned sum = sumOfConstants();
        common::releaseCode();
        ::_exit(sum > 0 && kilobytes(constants.data(), "Rss") >= size / 1024 ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == cannotTrace) GTEST_SKIP() << "nothing can be traced here";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) << status;
}

}  // namespace
