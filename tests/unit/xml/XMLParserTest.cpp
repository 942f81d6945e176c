#include "xml/XMLParser.h"

#include <gtest/gtest.h>

namespace {

TEST(XMLParserTest, IsAReader) {
    zav::XMLParser parser;
    EXPECT_FALSE(parser.load("/tmp/no such file"));
}

}  // namespace
