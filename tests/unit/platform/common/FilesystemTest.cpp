#include "common/Filesystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

class RemoveAllFromDirectoryTest : public testing::Test {
 protected:
    RemoveAllFromDirectoryTest() {
        std::string pattern = (fs::temp_directory_path() / "zav-XXXXXX").string();
        folder_ = mkdtemp(pattern.data());
    }
    ~RemoveAllFromDirectoryTest() override { fs::remove_all(folder_); }
    RemoveAllFromDirectoryTest(const RemoveAllFromDirectoryTest&) = delete;
    RemoveAllFromDirectoryTest& operator=(const RemoveAllFromDirectoryTest&) = delete;

    fs::path folder_;
};

TEST_F(RemoveAllFromDirectoryTest, RemovesEverythingButTheFolder) {
    fs::create_directories(folder_ / "a/b/c");
    std::ofstream(folder_ / "a/b/file") << "x";
    std::ofstream(folder_ / ".hidden") << "x";
    filesystem::removeAllFromDirectory(folder_);
    EXPECT_TRUE(fs::is_directory(folder_));
    EXPECT_TRUE(fs::is_empty(folder_));
}

TEST_F(RemoveAllFromDirectoryTest, RemovesLinksButNotTheirTargets) {
    fs::create_directories(folder_ / "kept");
    fs::create_directories(folder_ / "emptied");
    std::ofstream(folder_ / "kept/file") << "x";
    fs::create_directory_symlink(folder_ / "kept", folder_ / "emptied/link");
    filesystem::removeAllFromDirectory(folder_ / "emptied");
    EXPECT_TRUE(fs::is_empty(folder_ / "emptied"));
    EXPECT_TRUE(fs::exists(folder_ / "kept/file"));
}

TEST_F(RemoveAllFromDirectoryTest, MissingFolderIsNotAnError) {
    EXPECT_NO_THROW(filesystem::removeAllFromDirectory(folder_ / "missing"));
}

TEST_F(RemoveAllFromDirectoryTest, ThrowsForAFile) {
    std::ofstream(folder_ / "file") << "x";
    EXPECT_THROW(filesystem::removeAllFromDirectory(folder_ / "file"), fs::filesystem_error);
    EXPECT_TRUE(fs::exists(folder_ / "file"));
}

}  // namespace
