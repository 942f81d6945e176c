#include "pack/Table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Workspace.h"
#include "pack/MacAddress.h"
#include "pack/Pattern.h"

namespace pack {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class TableTest : public Workspace {
 protected:
    static std::string errorIn(const std::string& text) {
        return errorOf([&] { parseTable(text, "t.csv"); });
    }
};

TEST_F(TableTest, ReadsQuotesLineBreaksAndBothLineEnds) {
    const Table table = parseTable(
        "\xef\xbb\xbfmac,\"a name\",x\r\n1,\"say \"\"hi\"\", now\",\n2,\"two\nlines\",b\r\n\r\n3,,", "t.csv");
    EXPECT_THAT(table.columns, ElementsAre("mac", "a name", "x"));
    ASSERT_THAT(table.rows, SizeIs(3));
    EXPECT_THAT(table.rows[0].fields, ElementsAre("1", "say \"hi\", now", ""));
    EXPECT_THAT(table.rows[1].fields, ElementsAre("2", "two\nlines", "b"));
    EXPECT_THAT(table.rows[2].fields, ElementsAre("3", "", ""));
    EXPECT_EQ(table.rows[1].number, 3U);
    EXPECT_EQ(table.rows[1].line, 3U);
    EXPECT_EQ(table.rows[2].number, 5U);
    EXPECT_EQ(table.rows[2].line, 6U);
}

TEST_F(TableTest, TheLastFieldMayEndWithItsQuote) {
    const Table table = parseTable("a\n\"1\"", "t.csv");
    EXPECT_THAT(table.columns, ElementsAre("a"));
    ASSERT_THAT(table.rows, SizeIs(1));
    EXPECT_THAT(table.rows[0].fields, ElementsAre("1"));
}

TEST_F(TableTest, AMistakeInOneRowIsTheRowsProblem) {
    const Table table = parseTable("a,b\n1\n1,2,3\n1,\xff\n1,2\n", "t.csv");
    ASSERT_THAT(table.rows, SizeIs(4));
    EXPECT_EQ(table.rows[0].problem, "1 fields, but 2 columns");
    EXPECT_EQ(table.rows[1].problem, "3 fields, but 2 columns");
    EXPECT_EQ(table.rows[2].problem, "b is not UTF-8: \\xff");
    EXPECT_EQ(table.rows[3].problem, "");
}

TEST_F(TableTest, MistakesThatLeaveTheRowsOpenAreErrorsWithTheLine) {
    EXPECT_THAT(errorIn("a,b\n1,2\n\"3,4\n5,6\n"), HasSubstr("t.csv:3: the quote that begins a field here never ends"));
    EXPECT_THAT(errorIn("a,b\n1,2\"\n"), HasSubstr("t.csv:2: a quote inside a field"));
    EXPECT_THAT(errorIn("a,b\n\"1\n\"x,2\n"), HasSubstr("t.csv:3: text behind the quote"));
    EXPECT_THAT(errorIn("a,b\n1,\"2\"\r"), HasSubstr("t.csv:2: a carriage return without a line feed"));
    EXPECT_THAT(errorIn("a,b\r1,2\r"), HasSubstr("t.csv:1: a carriage return without a line feed"));
}

TEST_F(TableTest, ColumnsMustBeNamedAndDifferent) {
    EXPECT_THAT(errorIn(""), HasSubstr("the table is empty"));
    EXPECT_THAT(errorIn("a,b\n"), HasSubstr("no rows"));
    EXPECT_THAT(errorIn("a,,b\n1,2,3\n"), HasSubstr("t.csv:1: column 2 has no name"));
    EXPECT_THAT(errorIn("a,b,a\n1,2,3\n"), HasSubstr("two columns are named \"a\""));
    EXPECT_THAT(errorIn("a,{b}\n1,2\n"), HasSubstr("has a brace"));
    EXPECT_THAT(errorIn("a;b\n1;2\n"), HasSubstr("separate columns with commas"));
    EXPECT_THAT(errorIn("a\tb\n1\t2\n"), HasSubstr("separate columns with commas"));
    EXPECT_THAT(errorIn("a,\xff\n1,2\n"), HasSubstr("the name of column 2 has control characters or is not UTF-8"));
    EXPECT_THAT(errorIn("a,\"b\nc\"\n1,2\n"), HasSubstr("the name of column 2 has control characters"));
    for (const char* const mark : {"\xff\xfe", "\xfe\xff"}) {
        EXPECT_THAT(errorIn(mark + std::string("a,b\n1,2\n")), HasSubstr("is UTF-16; save the table as CSV in UTF-8"));
    }
    EXPECT_THAT(errorIn(std::string("\xff\xfe"
                                    "a\0",
                                    4)),
                HasSubstr("UTF-16"));
}

TEST_F(TableTest, PatternsStandForValuesAndNameWhatTheyDoNotKnow) {
    const std::vector<std::string> columns{"mac", "a name"};
    const Pattern pattern("{mac}/{{{a name}}-{mac}", columns, "t");
    EXPECT_EQ(pattern.expand({"1", "2"}), "1/{2}-1");
    EXPECT_FALSE(Pattern("no braces }", columns, "t").hasPlaceholders());
    EXPECT_THAT(errorOf([&] { Pattern("a\nb {nmae}", columns, "t"); }),
                HasSubstr("t:2: unknown placeholder {nmae}; there are mac, a name"));
    EXPECT_THAT(errorOf([&] { Pattern("{mac", columns, "t"); }), HasSubstr("t:1: a brace that is not closed"));
    EXPECT_THAT(errorOf([&] { Pattern("{\nmac}", columns, "t"); }), HasSubstr("t:1: a brace that is not closed"));
}

TEST_F(TableTest, ValuesAreEscapedForXml) {
    EXPECT_EQ(escapedForXml("a<b>&\"'\t\n\r\xc3\xa9"), "a&lt;b&gt;&amp;&quot;&apos;&#9;&#10;&#13;\xc3\xa9");
    EXPECT_THAT(errorOf([] { escapedForXml("a\x01"); }), HasSubstr("control character"));
    EXPECT_THAT(errorOf([] { escapedForXml("\xef\xbf\xbf"); }), HasSubstr("XML cannot hold"));
    EXPECT_THAT(errorOf([] { escapedForXml("\xef\xbf\xbe"); }), HasSubstr("XML cannot hold"));
}

TEST_F(TableTest, MacAddressesOfDevicesOnly) {
    EXPECT_EQ(formatMac("02:00:5E:10:00:0a", '-'), "02-00-5E-10-00-0a");
    EXPECT_EQ(formatMac("02-00-5E-10-00-0A", ':'), "02:00:5E:10:00:0A");
    EXPECT_EQ(formatMac("02005E10000A", ':'), "02:00:5E:10:00:0A");
    for (const char* const text :
         {"", "02:00:5E:10:00:0", "02:00:5E:10:00:0G", "02:00-5E:10:00:0A", "02:00:5E:10:00:0A ", "0200:5E:10:00:0A",
          "01:00:5E:10:00:0A", "FF:FF:FF:FF:FF:FF", "02.00.5E.10.00.0A"}) {
        EXPECT_EQ(formatMac(text, ':'), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace pack
