#include "common/Quote.h"

#include <gtest/gtest.h>

namespace {

TEST(QuoteTest, PutsTextBetweenSingleQuotes) {
    EXPECT_EQ(quote("text"), "'text'");
    EXPECT_EQ(quote(""), "''");
}

TEST(QuoteTest, PutsTheSeparatorBetweenTwoTexts) {
    EXPECT_EQ(quote("name", "value", "="), "'name'='value'");
    EXPECT_EQ(quote("name", "value", ""), "'name''value'");
}

TEST(QuoteTest, EscapesControlBytes) { EXPECT_EQ(quote("a\nb\x7f"), "'a\\nb\\x7f'"); }

}  // namespace
