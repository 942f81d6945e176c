#include "common/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

namespace {

namespace fs = std::filesystem;

bool isGoneWithin(const std::string& path, std::chrono::seconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (fs::exists(path)) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(TemporaryFolder, IsPrivateAndRemovedWithItsContent) {
    std::optional<common::TemporaryFolder> folder(std::in_place, "zav-test");
    const std::string path = folder->path();
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
    fs::create_directories(path + "/a/b");
    std::ofstream(path + "/a/b/file") << "x";
    folder.reset();
    EXPECT_FALSE(fs::exists(path));
}

TEST(TemporaryFolder, IsRemovedAfterSigkill) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const common::TemporaryFolder folder("zav-test");
        static_cast<void>(!::write(ends[1], folder.path().data(), folder.path().size()));
        ::pause();
    }
    std::array<char, 100> path{};
    ASSERT_GT(::read(ends[0], path.data(), path.size() - 1), 0);
    EXPECT_TRUE(fs::exists(path.data()));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(isGoneWithin(path.data(), std::chrono::seconds(30)));
    ::close(ends[0]);
    ::close(ends[1]);
}

}  // namespace
