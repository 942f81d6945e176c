#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FailingCalls.h"
#include "common/Filesystem.h"
#include "common/TemporaryFolder.h"
#include "fakes/FewDescriptors.h"

namespace {

namespace fs = std::filesystem;
using fakes::FewDescriptors;

class FilesystemFailureTest : public testing::Test {
 protected:
    FilesystemFailureTest() {
        fs::create_directories(folder.path() + "/a/b");
        std::ofstream(folder.path() + "/a/b/file") << "x";
    }

    // What removing everything failed with, without the path of the folder.
    std::string removal() const {
        try {
            filesystem::removeAllFromDirectory(folder.path());
        } catch (const fs::filesystem_error& failure) {
            return failure.code().message() + ": " + failure.path1().string().substr(folder.path().size());
        }
        return "";
    }

    const common::TemporaryFolder folder{"zav-test"};
};

TEST_F(FilesystemFailureTest, WithoutDescriptorsNothingIsRemoved) {
    if (failing::sanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors";
    // Each level takes one for the folder, and one more while it is read.
    const std::vector<std::string> expected{"Too many open files: ", "Too many open files: ", "Too many open files: /a",
                                            "Too many open files: /a/b", ""};
    for (std::size_t left = 0; left < expected.size(); ++left) {
        EXPECT_TRUE(fs::exists(folder.path() + "/a/b/file"));
        const FewDescriptors few(left);
        EXPECT_EQ(removal(), expected[left]) << left << " descriptors are left";
    }
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST_F(FilesystemFailureTest, WithoutDescriptorsFoldersAreLeftOutOfAListing) {
    for (const rlim_t left : {0U, 1U, 2U, 3U}) {
        const FewDescriptors few(left);
        EXPECT_TRUE(filesystem::entriesOf(folder.path(), true).empty()) << left << " descriptors are left";
    }
    const FewDescriptors enough(4);
    EXPECT_EQ(filesystem::entriesOf(folder.path(), true).size(), 1U);
}

TEST_F(FilesystemFailureTest, OneOfSeveralFailuresIsReported) {
    if (failing::sanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors";
    fs::create_directories(folder.path() + "/c/d");
    const FewDescriptors few(2);
    const std::string first = removal();
    EXPECT_TRUE(first == "Too many open files: /a" || first == "Too many open files: /c") << first;
    EXPECT_TRUE(fs::exists(folder.path() + "/a/b"));
    EXPECT_TRUE(fs::exists(folder.path() + "/c/d"));
}

TEST(TemporaryFolderFailureTest, HasNoPathIfItCannotBeMade) {
    EXPECT_EQ(common::TemporaryFolder("no-such-folder/zav-test").path(), "");
    const FewDescriptors none(1);
    EXPECT_EQ(common::TemporaryFolder("zav-test").path(), "");
}

}  // namespace
