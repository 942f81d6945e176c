#include "catalogue/KeyPattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace propertyservice {
namespace {

using testing::ElementsAre;

std::vector<std::string> keysOf(const std::string& pattern) {
    std::vector<std::string> keys;
    KeyPattern(pattern).expand([&keys](std::string_view key) { keys.emplace_back(key); });
    return keys;
}

std::string errorOf(const std::string& pattern) {
    try {
        const KeyPattern unused(pattern);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

TEST(KeyPattern, RefusesMoreThan10000Keys) {
    EXPECT_EQ(keysOf("a.{0-99}.{0-99}").size(), 10000U);
    EXPECT_THROW(keysOf("a.{0-99}.{0-100}"), std::invalid_argument);
    EXPECT_THROW(keysOf("a.{0-4294967295}"), std::invalid_argument);
    EXPECT_THROW(keysOf("a.{00-7}"), std::invalid_argument);
    EXPECT_THROW(keysOf("a.{}"), std::invalid_argument);
    EXPECT_EQ(keysOf("a.{0-9999}").size(), 10000U);
    EXPECT_THROW(keysOf("a.{0-10000}"), std::invalid_argument);
    EXPECT_THROW(keysOf("a.{0-9999}.{0-1}"), std::invalid_argument);
}

TEST(KeyPattern, AcceptsTheLargestIndex) {
    EXPECT_THAT(keysOf("a.{4294967294-4294967295}"), ElementsAre("a.4294967294", "a.4294967295"));
    EXPECT_THROW(keysOf("a.{4294967295-4294967296}"), std::invalid_argument);
}

TEST(KeyPattern, IndexIsADecimalNumber) {
    for (const char* index : {"a", "f", "0x1", "0a", "+1", "-1", " 1", "1 ", "1a", "01", "00", "1.", "1e1", ""}) {
        EXPECT_THROW(keysOf("k.{" + std::string(index) + "-20}"), std::invalid_argument) << index;
        EXPECT_THROW(keysOf("k.{0-" + std::string(index) + "}"), std::invalid_argument) << index;
    }
    EXPECT_THAT(keysOf("k.{9-11}"), ElementsAre("k.10", "k.11", "k.9"));
    EXPECT_THAT(keysOf("k.{0-0}"), ElementsAre("k.0"));
    EXPECT_THAT(keysOf("k.{10-10}e"), ElementsAre("k.10e"));
    EXPECT_THAT(keysOf("{1-2}{3-4}"), ElementsAre("13", "14", "23", "24"));
    EXPECT_THAT(keysOf("plain}"), ElementsAre("plain}"));
}

TEST(KeyPattern, OrdersNumbersAsTexts) {
    for (const auto& [first, last] :
         {std::pair(0U, 9999U), std::pair(7U, 1203U), std::pair(95U, 105U), std::pair(5000U, 14999U), std::pair(1U, 1U),
          std::pair(4294957296U, 4294967295U)}) {
        std::vector<std::string> numbers;
        for (unsigned number = first; number != last; ++number) numbers.push_back(std::to_string(number));
        numbers.push_back(std::to_string(last));
        std::sort(numbers.begin(), numbers.end());
        EXPECT_EQ(keysOf("{" + std::to_string(first) + "-" + std::to_string(last) + "}"), numbers) << first;
    }
}

TEST(KeyPattern, KnowsHowManyKeysItHas) {
    for (const char* pattern : {"", "a", "a.{3-3}", "a.{0-7}.b", "{10-99}.{0-9}{1-2}"}) {
        EXPECT_EQ(KeyPattern(pattern).size(), keysOf(pattern).size()) << pattern;
    }
}

TEST(KeyPattern, ItsExampleIsOneOfItsKeys) {
    for (const char* const text : {"A.B", "A.{7-9}", "{8-11}.A.{0-1}B"}) {
        EXPECT_THAT(keysOf(text), testing::Contains(KeyPattern(text).example())) << text;
    }
}

TEST(KeyPattern, RefusesKeysOfMoreThan255Bytes) {
    const std::string tooLong = "the pattern expands to keys of more than 255 bytes";
    EXPECT_EQ(keysOf("a.{0-9999}." + std::string(248, 'b')).back(), "a.9999." + std::string(248, 'b'));
    EXPECT_EQ(errorOf("a.{0-9999}." + std::string(249, 'b')), tooLong);
    EXPECT_EQ(errorOf(std::string(255, 'a') + "{0-0}"), tooLong);
    EXPECT_EQ(errorOf("a.{0-99}." + std::string(200, 'b') + ".{0-99}." + std::string(50, 'c')), tooLong);
    EXPECT_EQ(errorOf("X.{0-9999}." + std::string(1024 * 1024, 'y')), tooLong) << "and takes no memory";
}

TEST(KeyPattern, LeavesANameWithoutARangeToTheCheckOfKeys) {
    const std::string name(256, 'a');
    EXPECT_EQ(keysOf(name), std::vector<std::string>{name});
}

}  // namespace
}  // namespace propertyservice
