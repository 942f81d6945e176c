#include "common/ByteSet.h"

#include <gtest/gtest.h>

namespace {

TEST(ByteSet, HasTheBytesForWhichThePredicateIsTrue) {
    constexpr common::ByteSet isControl([](unsigned char byte) { return byte < 0x20 || byte == 0x7f; });
    static_assert(isControl('\n') && !isControl('n'));
    EXPECT_TRUE(isControl('\0'));
    EXPECT_TRUE(isControl('\x1f'));
    EXPECT_FALSE(isControl(' '));
    EXPECT_TRUE(isControl('\x7f'));
}

// A letter may have a sign.
TEST(ByteSet, KnowsBytesAboveTheLettersOfAscii) {
    constexpr common::ByteSet isHigh([](unsigned char byte) { return byte >= 0x80; });
    EXPECT_TRUE(isHigh('\x80'));
    EXPECT_TRUE(isHigh('\xff'));
    EXPECT_FALSE(isHigh('\x7f'));
}

}  // namespace
