#include "SettingsFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Failure.h"
#include "common/Descriptor.h"

namespace zavctl {
namespace {

using testing::HasSubstr;

class PrivateFile : public testing::Test {
 protected:
    PrivateFile() {
        std::string pattern = "/tmp/zavctl-XXXXXX";
        folder = ::mkdtemp(pattern.data());
    }
    ~PrivateFile() override { std::filesystem::remove_all(folder); }

    // Expects a Failure with this reason, with and without `replace`, and no change in the folder.
    void refused(const std::string& path, const std::string& reason) {
        const auto files = std::distance(std::filesystem::directory_iterator(folder), {});
        for (const bool replace : {false, true}) {
            try {
                writePrivateFile(path, "a secret text", replace);
                ADD_FAILURE() << path << " was written";
            } catch (const Failure& failure) {
                EXPECT_EQ(failure.code(), ExitCode::failed);
                EXPECT_THAT(failure.what(), HasSubstr(path + ": " + reason));
            }
        }
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), files);
    }

    static std::string content(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    static mode_t mode(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        return status.st_mode;
    }

    std::filesystem::path folder;
};

TEST_F(PrivateFile, HasMode0600AndIsReplacedOnRequestOnly) {
    const std::string path = folder / "new";
    writePrivateFile(path, "one", false);
    EXPECT_EQ(content(path), "one");
    EXPECT_EQ(mode(path) & 0777U, 0600U);
    EXPECT_THROW(writePrivateFile(path, "two", false), Failure);
    EXPECT_EQ(content(path), "one");
    ::chmod(path.c_str(), 0644);
    writePrivateFile(path, "three", true);
    EXPECT_EQ(content(path), "three");
    EXPECT_EQ(mode(path) & 0777U, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
}

TEST_F(PrivateFile, LinksAreNeitherFollowedNorReplaced) {
    std::ofstream(folder / "file") << "kept";
    std::filesystem::create_symlink(folder / "file", folder / "link");
    std::filesystem::create_symlink(folder / "none", folder / "dangling");
    std::filesystem::create_symlink(folder, folder / "to-folder");
    refused(folder / "link", "is a symbolic link, which is not followed");
    refused(folder / "to-folder", "is a symbolic link, which is not followed");
    refused(folder / "dangling", "cannot be opened: No such file");
    EXPECT_EQ(content(folder / "file"), "kept");
    EXPECT_TRUE(S_ISLNK(mode(folder / "link")));
}

TEST_F(PrivateFile, FoldersAndSocketsAreRefused) {
    std::filesystem::create_directory(folder / "folder");
    refused(folder / "folder", "is a directory");
    const common::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder / "socket").string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    refused(folder / "socket", "is not a file, a pipe or a character device");
    refused(folder / "none" / "file", "cannot be created: No such file");
}

TEST_F(PrivateFile, DevicesAreWrittenAndErrorsReported) {
    writePrivateFile("/dev/null", "secret", false);
    writePrivateFile("/dev/null", "secret", true);
    EXPECT_TRUE(S_ISCHR(mode("/dev/null")));
    refused("/dev/full", "cannot be written: No space left on device");
    EXPECT_TRUE(S_ISCHR(mode("/dev/full")));
}

TEST_F(PrivateFile, PipesAreWrittenByNameAndByDescriptor) {
    const std::string path = folder / "fifo";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    // Opened for reading and writing, so that neither end waits for the other.
    const common::Descriptor fifo(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    char buffer[2000];
    for (const bool replace : {false, true}) {
        writePrivateFile(path, std::string(1000, 'x'), replace);
        EXPECT_EQ(::read(fifo.get(), buffer, sizeof buffer), 1000);
        EXPECT_TRUE(S_ISFIFO(mode(path)));
    }
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const common::Descriptor reading(ends[0]);
    const common::Descriptor writing(ends[1]);
    const std::string name = "/dev/fd/" + std::to_string(writing.get());  // what a shell passes for >(command)
    writePrivateFile(name, "text", false);
    EXPECT_EQ(::read(reading.get(), buffer, sizeof buffer), 4);
}

// Limits the size of this process's files while it lives, as if the disk were full.
class FullDisk {
 public:
    explicit FullDisk(rlim_t bytes) {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;
    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &before_); }

 private:
    rlimit before_{};
};

TEST_F(PrivateFile, AFailedWriteKeepsTheOldFile) {
    const std::string path = folder / "old";
    writePrivateFile(path, "old", false);
    {
        const FullDisk full(10);
        refused(folder / "new", "cannot be written: File too large");
        EXPECT_THROW(writePrivateFile(path, std::string(100, 'x'), true), Failure);
    }
    EXPECT_EQ(content(path), "old");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
}

}  // namespace
}  // namespace zavctl
