#include "lint/Source.h"

#include <gtest/gtest.h>

#include "lint/Spelling.h"

namespace lint {
namespace {

Source source(const std::string& text) {
    return Source(text, [](const std::string& setting) { return setting == "Secret.Key"; });
}

TEST(Source, LinesEndWithOrWithoutCarriageReturn) {
    const Source text = source("one\r\ntwo\nthree");
    EXPECT_EQ(text.positionOf(5).line, 2U);
    EXPECT_EQ(text.excerptAt(2).text, "one");
    EXPECT_EQ(text.excerptAt(9).text, "three");
    EXPECT_EQ(text.excerptAt(10).caret, 2U);
    EXPECT_EQ(text.excerptAt(99).caret, 6U);
}

TEST(Source, LongLinesAreCutAroundThePlace) {
    const Source text = source(std::string(500, 'a') + "X" + std::string(500, 'b'));
    const Excerpt excerpt = text.excerptAt(500);
    EXPECT_EQ(excerpt.text.size(), 100U);
    EXPECT_EQ(excerpt.text[excerpt.caret - 1], 'X');
}

TEST(Source, CharactersThatAreNotVisibleAreReplaced) {
    EXPECT_EQ(source("a\tb\x1B[1m\xC2\x9B\xE2\x80\xAE\xFFz").excerptAt(0).text, "a b?[1m???z");
}

TEST(Source, SecretsAreReplacedWhereverTheLineBreaks) {
    const std::string text = "<param name='Secret.Key'\n  value='hidden\nrest'/>";
    EXPECT_EQ(source(text).excerptAt(28).text, "  value='***");
    EXPECT_EQ(source(text).excerptAt(42).text, "***'/>");
}

TEST(Source, ColumnsInBytesBecomeOffsets) {
    const Source text = source("ab\n\xC3\xBC!");
    EXPECT_EQ(text.offsetOf(2, 3), 5U);
    EXPECT_EQ(text.offsetOf(2, 2), 3U) << "not within a character";
    EXPECT_EQ(text.offsetOf(9, 1), 6U);
}

TEST(Utf8, TheFirstInvalidByteIsFound) {
    EXPECT_EQ(invalidUtf8("a\xC3\xBC\xF0\x9F\x98\x80"), std::string::npos);
    EXPECT_EQ(invalidUtf8("a\xC3("), 1U);
    EXPECT_EQ(invalidUtf8("ab\xC0\x80"), 2U);
    EXPECT_EQ(invalidUtf8("ab\xE2\x82"), 2U);
}

TEST(Spelling, CountsEditsButNotCase) {
    EXPECT_EQ(distanceOf("parm", "param", 3), 1U);
    EXPECT_EQ(distanceOf("PARAM", "param", 3), 0U);
    EXPECT_EQ(distanceOf("valeu", "value", 3), 1U);
    EXPECT_EQ(distanceOf("abcdef", "uvwxyz", 2), 3U);
}

TEST(Spelling, NearestIsDeterministicAndNotTooFar) {
    Nearest nearest("Audio.Ringer.Volum");
    for (const char* key : {"Audio.Ringer.Volume", "Audio.Ringer.Melody"}) nearest.consider(key);
    EXPECT_EQ(nearest.found(), "Audio.Ringer.Volume");
    Nearest tie("ab1");
    for (const char* key : {"ab3", "ab2"}) tie.consider(key);
    EXPECT_EQ(tie.found(), "ab2");
    Nearest far("Something");
    far.consider("Else");
    EXPECT_EQ(far.found(), "");
}

}  // namespace
}  // namespace lint
