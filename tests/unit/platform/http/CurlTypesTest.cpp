#include "http/CurlTypes.h"

#include <gtest/gtest.h>

namespace {

using zav::CurlTypes;

TEST(CurlTypes, DescribesTransferResults) {
    EXPECT_EQ(CurlTypes::getCurlErrorDescription(0), "No error");
    EXPECT_EQ(CurlTypes::getCurlErrorDescription(7), "Couldn't connect to server");
    EXPECT_EQ(CurlTypes::getCurlErrorDescription(4711), "Unknown error");
    EXPECT_EQ(CurlTypes::getCurlErrorDescription(-1), "Unknown error");
}

TEST(CurlTypes, DescribesHttpCodes) {
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(0), "0 No answer");
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(200), "200 OK");
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(304), "304 Not Modified");
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(404), "404 Not Found");
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(511), "511 Network Authentication Required");
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(299), "299");
    EXPECT_EQ(CurlTypes::getHTTPCodeDescription(-5), "-5");
}

}  // namespace
