#include "xml/XMLParser.h"

#include <gtest/gtest.h>

namespace {

TEST(XMLParserTest, ImplementsTheReader) {
    zav::XMLParser parser;
    EXPECT_FALSE(parser.load("/tmp/no such file"));
}

}  // namespace
