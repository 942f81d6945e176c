#include "xml/XMLParser.h"

#include <gtest/gtest.h>

namespace {

TEST(XMLParserTest, TheNamesByNumber) {
    const char* const names[] = {"version", "productID", "",       "provisioning", "category", "type",
                                 "url",     "firmware",  "file",   "version",      "url",      "nvm",
                                 "file",    "version",   "url",    "settings",     "param",    "name",
                                 "value",   "flags",     "custom", "scenario",     "step",     "type"};
    for (unsigned number = 0; number < 24; ++number) EXPECT_EQ(zav::formatName(number), names[number]) << number;
    EXPECT_EQ(zav::formatName(24), "");
    EXPECT_EQ(zav::formatName(4294967295U), "");
}

TEST(XMLParserTest, IsAReader) {
    zav::XMLParser parser;
    EXPECT_FALSE(parser.load("/tmp/no such file"));
}

}  // namespace
