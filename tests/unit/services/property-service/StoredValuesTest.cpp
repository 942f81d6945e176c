#include "store/StoredValues.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "StoredValuesEqual.h"

namespace propertyservice {
namespace {

using testing::ElementsAre;
using Entry = IStore::Entry;

TEST(StoredValues, KeepsCopiesOfAllSizesInTheirOrder) {
    StoredValues values;
    std::vector<Entry> expected;
    for (const std::size_t size : {0U, 1U, 65535U, 65536U, 65537U, 200000U, 2U, 0U}) {
        std::string text(size, static_cast<char>('a' + expected.size()));
        expected.emplace_back("key" + std::to_string(expected.size()), text);
        values.add(expected.back().first, text);
        text.assign(size, '?');
    }
    EXPECT_EQ(entriesOf(values), expected);
}

TEST(StoredValues, StayWhereTheyAreWhenMoved) {
    StoredValues values;
    EXPECT_TRUE(values.empty());
    values.add("a", "1");
    StoredValues moved = std::move(values);
    moved.add("b", std::string("x\0y", 3));
    EXPECT_THAT(moved, ElementsAre(Entry("a", "1"), Entry("b", std::string("x\0y", 3))));
    EXPECT_EQ(moved.size(), 2U);
}

}  // namespace
}  // namespace propertyservice
