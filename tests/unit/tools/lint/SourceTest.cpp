#include "lint/Source.h"

#include <gtest/gtest.h>

#include "lint/Remedies.h"
#include "lint/Scan.h"
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

TEST(Source, SecretsAreReplacedHoweverFarTheirTagIs) {
    const std::string text = "<param name='Secret.Key' note='" + std::string(100000, '\n') + "' value='\nhidden'/>";
    EXPECT_EQ(source(text).excerptAt(text.find("hidden")).text, "***'/>");
}

TEST(Source, ASecretWithinASecretIsOne) {
    const std::string text = "<param name='Secret.Key' value='<param name=\"Secret.Key\" value=\"hidden\"'/>";
    EXPECT_EQ(source(text).excerptAt(0).text, "<param name='Secret.Key' value='***'/>");
}

TEST(Source, ColumnsInBytesBecomeOffsets) {
    const Source text = source("ab\n\xC3\xBC!");
    EXPECT_EQ(text.offsetOf(2, 3), 5U);
    EXPECT_EQ(text.offsetOf(2, 2), 3U) << "not within a character";
    EXPECT_EQ(text.offsetOf(9, 1), 6U);
}

TEST(Source, OfAVeryLongLineTheNeighbourhoodIsShown) {
    const std::string before(100000, ' ');
    const std::string text = "<a>" + before + "<param name='Secret.Key' value='hidden'/>" + before;
    EXPECT_EQ(source(text).excerptAt(before.size() + 40).text.find("hidden"), std::string::npos);
    EXPECT_NE(source(text).excerptAt(before.size() + 40).text.find("value='***'"), std::string::npos);
    EXPECT_EQ(source("x\n" + std::string(100000, 'a') + "\nb").excerptAt(100003).text, "b");
    EXPECT_EQ(source("one").offsetOf(0, 1), 3U);
}

TEST(Source, PinsAndPasswordsAreSecretsWithoutACatalogue) {
    for (const char* const name : {"Phone.PIN", "Phone.Pin", "pin", "My.PassWord", "A.Token"}) {
        EXPECT_TRUE(soundsSecret(name)) << name;
        const std::string text = "<param name='" + std::string(name) + "' value='1234'/>";
        EXPECT_EQ(source(text).excerptAt(0).text.find("1234"), std::string::npos) << name;
    }
    EXPECT_FALSE(soundsSecret("Phone.Pins"));
    EXPECT_EQ(source("<a b='me@server' c").excerptAt(0).text, "<a b='me@server' c");
    EXPECT_EQ(source("<a b").excerptAt(0).text, "<a b");
    EXPECT_EQ(source("<a b=").excerptAt(0).text, "<a b=");
}

TEST(Scan, FindsElementsBehindADocumentType) {
    const std::string text =
        "<?xml version='1.0'?><!DOCTYPE a SYSTEM \"b>c\" [<!ELEMENT x '>'><!-- ]> --><?y ]>?>]>"
        "<a b='1>'\tc = \"2\"\r><d/></a>";
    const Places places = scan(text);
    ASSERT_EQ(places.elements.size(), 2U);
    EXPECT_EQ(text.substr(places.elements[0].name, 1), "a");
    EXPECT_EQ(text.substr(places.elements[1].name, 1), "d");
    ASSERT_EQ(places.elements[0].attributeCount, 2U);
    EXPECT_EQ(text.substr(places.attributes[1].name, 1), "c");
    EXPECT_EQ(text.substr(places.attributes[1].value, 1), "2");
}

TEST(Scan, TextThatEndsAnywhereHasNoPlaceBehindItsEnd) {
    const std::string whole =
        "<?x?><!DOCTYPE a 'b' [<!-- c --><?d?>]><a b='1' c=\"2\"><![CDATA[e]]><f/></a><= '1'><g 'h'>";
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const Places places = scan(whole.substr(0, size));
        for (const ElementPlace& element : places.elements) {
            EXPECT_LE(element.nameEnd, size);
            EXPECT_LE(element.firstAttribute + element.attributeCount, places.attributes.size());
        }
        for (const AttributePlace& attribute : places.attributes) EXPECT_LE(attribute.value, size);
    }
}

TEST(Remedies, AreQuotedWithinTheirBounds) {
    EXPECT_EQ(quoted("a\x7F\nb"), "\"a  b\"");
    const std::string letters(79, 'a');
    EXPECT_EQ(quoted(letters + "\u00FCbc"), "\"" + letters + "\u00FC...\"");
    EXPECT_EQ(unknownPlaceholder("/a%4/"), "%4/");
    EXPECT_EQ(unknownPlaceholder("/a%2?b"), "%2?b");
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

// Each candidate is as many edits away as are still allowed.
TEST(Spelling, NearestConsidersEveryCandidateWithinItsEdits) {
    for (const char* key : {"uabcdef", "abcdefuv", "abcd", "vbcdeu", "badcef", "FEDCBA"}) {
        const bool within = distanceOf("abcdef", key, 6) <= 2;
        Nearest nearest("abcdef");
        nearest.consider(key);
        EXPECT_EQ(nearest.found(), within ? key : "") << key;
        EXPECT_EQ(within, std::string(key) != "FEDCBA");
    }
    Nearest repeated("aaab");  // a letter counts as often as it is there
    for (const char* key : {"abbb", "aabb"}) repeated.consider(key);
    EXPECT_EQ(repeated.found(), "aabb");
}

}  // namespace
}  // namespace lint
