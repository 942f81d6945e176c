#include "common/TextBlocks.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using common::TextBlocks;

TEST(TextBlocks, KeepShortAndLongTexts) {
    TextBlocks blocks;
    std::vector<std::pair<std::string, std::string_view>> copies;
    for (const std::size_t size : {0U, 1U, 65535U, 65536U, 1U, 65537U, 200000U, 0U, 7U}) {
        const std::string text(size, static_cast<char>('a' + copies.size()));
        copies.emplace_back(text, blocks.copy(text));
    }
    for (int i = 0; i < 20000; ++i) copies.emplace_back(std::to_string(i), blocks.copy(std::to_string(i)));
    for (const auto& [text, copy] : copies) ASSERT_EQ(copy, text);
}

TEST(TextBlocks, MoveWithTheirTextsAndCanBeUsedAfterwards) {
    TextBlocks blocks;
    const std::string_view first = blocks.copy("first");
    const TextBlocks moved = std::move(blocks);
    const std::string_view second = blocks.copy("second");  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(first, "first");
    EXPECT_EQ(second, "second");
}

}  // namespace
