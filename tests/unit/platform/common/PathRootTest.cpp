#include "common/PathRoot.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

class PathRoot : public testing::Test {
 protected:
    void TearDown() override { common::setPathRoot({}); }
};

TEST_F(PathRoot, IsEmptyByDefault) { EXPECT_EQ(common::rooted("/etc/zav.d/key"), "/etc/zav.d/key"); }

TEST_F(PathRoot, PrecedesAbsolutePathsOnly) {
    common::setPathRoot("/tmp/phone-1");
    EXPECT_EQ(common::rooted("/etc/zav.d/key"), "/tmp/phone-1/etc/zav.d/key");
    EXPECT_EQ(common::rooted("key"), "key");
    EXPECT_EQ(common::rooted(""), "");
}

TEST_F(PathRoot, MustBeSafeInAShellCommand) {
    for (const char* root : {"tmp", "/tmp/a b", "/tmp/$HOME", "/tmp/;ls", "/tmp/'", "/tmp/\n"}) {
        EXPECT_THROW(common::setPathRoot(root), std::invalid_argument) << root;
    }
    EXPECT_EQ(common::rooted("/x"), "/x");
}

}  // namespace
