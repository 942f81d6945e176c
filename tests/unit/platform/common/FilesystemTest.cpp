#include "common/Filesystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

TEST_F(RemoveAllFromDirectoryTest, EntriesAreListedWithoutFollowingLinks) {
    fs::create_directories(folder_ / "a/b");
    std::ofstream(folder_ / "a/b/file") << "x";
    fs::create_directory_symlink(folder_ / "a", folder_ / "link");
    std::vector<std::string> all;
    for (const filesystem::Entry& entry : filesystem::entriesOf(folder_.string() + "/", true)) {
        all.push_back(entry.path + (entry.isRegular ? "" : " (not regular)"));
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, (std::vector<std::string>{(folder_ / "a/b/file").string(),
                                             (folder_ / "link").string() + " (not regular)"}));
    EXPECT_EQ(filesystem::entriesOf(folder_, false).size(), 1U);
    EXPECT_TRUE(filesystem::entriesOf(folder_ / "link", true).empty());
    EXPECT_TRUE(filesystem::entriesOf(folder_ / "none", true).empty());
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
