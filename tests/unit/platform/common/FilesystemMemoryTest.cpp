// Work on folders while memory runs out: in turn, each allocation fails. A program of its own, because it replaces the
// allocation of the whole program.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <utility>

#include "FailingNew.h"
#include "common/Filesystem.h"

namespace {

namespace fs = std::filesystem;

class WithoutMemory : public testing::Test {
 protected:
    WithoutMemory() {
        std::string pattern = "/tmp/zav-folder-of-the-memory-test-XXXXXX";
        folder = ::mkdtemp(pattern.data());
    }
    ~WithoutMemory() override { fs::remove_all(folder); }

    void fill() const {
        fs::create_directories(folder + "/a-subfolder-with-a-long-name/and-another-one-in-it");
        for (const char* name : {"/a-file-with-a-long-name", "/a-subfolder-with-a-long-name/another-file"}) {
            std::ofstream(folder + name) << "x";
        }
    }

    // Calls the function with each allocation failing in turn; returns how many have failed.
    template <typename Function>
    static int failures(Function function) {
        for (int failed = 0;; ++failed) {
            allocationsLeft = failed;
            try {
                function();
                if (std::exchange(allocationsLeft, -1) >= 0) return failed;
            } catch (const std::bad_alloc&) {
            }
        }
    }

    std::string folder;
};

TEST_F(WithoutMemory, ListingAFolderThrows) {
    fill();
    std::size_t found = 0;
    EXPECT_GT(failures([&] { found = filesystem::entriesOf(folder, true).size(); }), 5);
    EXPECT_EQ(found, 2U);
}

TEST_F(WithoutMemory, EmptyingAFolderThrowsAndCanBeRepeated) {
    int failed = 0;
    for (int round = 0; round <= failed; ++round) {
        fill();
        failed = std::max(failed, failures([this] { filesystem::removeAllFromDirectory(folder); }));
        EXPECT_TRUE(fs::is_empty(folder));
    }
    EXPECT_GT(failed, 2);
}

}  // namespace
