#include "catalogue/PatternSize.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr std::size_t limit = 1000;

std::size_t sizeOf(const std::string& pattern) { return propertyservice::sizeOfPattern(pattern, limit); }

TEST(PatternSizeTest, CountsCharactersAndBrackets) {
    EXPECT_EQ(sizeOf(""), 0U);
    EXPECT_EQ(sizeOf("abc"), 3U);
    EXPECT_EQ(sizeOf("a|b"), 3U);
    EXPECT_EQ(sizeOf("a\\+b"), 3U);
    EXPECT_EQ(sizeOf("[abc]x"), 2U);
    EXPECT_EQ(sizeOf("[]+(]x"), 2U);
    EXPECT_EQ(sizeOf("[^]{9]x"), 2U);
    EXPECT_EQ(sizeOf("[[:alpha:]+]x"), 2U);
    EXPECT_EQ(sizeOf("[[.].]+]x"), 2U);
    EXPECT_EQ(sizeOf("(ab)"), 3U);
    EXPECT_EQ(sizeOf("(a(b))"), 4U);
}

TEST(PatternSizeTest, RepetitionsMultiply) {
    EXPECT_EQ(sizeOf("ab*"), 3U);
    EXPECT_EQ(sizeOf("ab?"), 3U);
    EXPECT_EQ(sizeOf("ab+"), 4U);
    EXPECT_EQ(sizeOf("ab{5}"), 7U);
    EXPECT_EQ(sizeOf("ab{2,7}c"), 10U);
    EXPECT_EQ(sizeOf("ab{7,}"), 9U);
    EXPECT_EQ(sizeOf("ab{0}"), 3U);
    EXPECT_EQ(sizeOf("(ab){3}"), 10U);
    EXPECT_EQ(sizeOf("((a{3}){3}){3}"), 1 + 3 * (1 + (1 + 3 * (1 + (1 + 3)))));
    EXPECT_EQ(sizeOf("[0-9]{4}"), 5U);
}

TEST(PatternSizeTest, StopsAtTheLimit) {
    EXPECT_EQ(sizeOf(std::string(limit, 'a')), limit);
    EXPECT_EQ(sizeOf(std::string(limit + 7, 'a')), limit + 1);
    EXPECT_EQ(sizeOf("a" + std::string(100, '+')), limit + 1);
    EXPECT_EQ(sizeOf("((((a{99}){99}){99}){99}){99}"), limit + 1);
    EXPECT_EQ(sizeOf("a{99999999999999999999999999}"), limit + 1);
    EXPECT_EQ(sizeOf(std::string(100000, '(')), limit + 1);
    EXPECT_EQ(sizeOf("a{99}{99}b"), limit + 1);
}

TEST(PatternSizeTest, TakesWhatIsNotAnExpression) {
    EXPECT_EQ(sizeOf(")"), 0U);
    EXPECT_EQ(sizeOf("("), 1U);
    EXPECT_EQ(sizeOf("\\"), 1U);
    EXPECT_EQ(sizeOf("["), 1U);
    EXPECT_EQ(sizeOf("[[:"), 1U);
    EXPECT_EQ(sizeOf("a{"), 2U);
    EXPECT_EQ(sizeOf("+"), 1U);
    EXPECT_EQ(sizeOf("{5}"), 1U);
}

}  // namespace
