#include "Messages.h"
#include "propertyprotocol/Limits.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>

namespace {

using namespace propertyapi;

Json::Value parsed(const std::string& text) {
    Json::Value root;
    std::istringstream stream(text);
    stream >> root;
    return root;
}

TEST(Messages, WritesRequests) {
    EXPECT_EQ(getRequest("NET.MAC.Address"), R"({"param":"NET.MAC.Address"})");
    EXPECT_EQ(setRequest("State.Provisioning", "me", "request"),
              R"({"param":"State.Provisioning","value":"request","source":"me"})");
    EXPECT_EQ(listRequest("State.", ""), R"({"prefix":"State."})");
    EXPECT_EQ(listRequest("State.", "State.B"), R"({"prefix":"State.","after":"State.B"})");
}

TEST(Messages, ValuesSurviveTheJsonEncoding) {
    std::string controls;
    for (int byte = 0; byte < 128; ++byte) controls += static_cast<char>(byte);
    for (const std::string& value : {controls, std::string("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x93\x9e"),
                                     std::string(), std::string("\"\\/\b\f\n\r\t")}) {
        const Json::Value root = parsed(setRequest("K", "s", value));
        EXPECT_EQ(root["value"].asString(), value);
        EXPECT_EQ(root["param"].asString(), "K");
        EXPECT_EQ(root["source"].asString(), "s");
    }
}

TEST(Messages, RefusesValuesThatCannotBeSent) {
    for (const char* value : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xe2\x82", "\xf4\x90\x80\x80", "\x80", "a\xc3"}) {
        EXPECT_THROW(setRequest("K", "", value), PropertyInvalidValueException) << value;
    }
    EXPECT_THROW(setRequest("K", "\xff", "v"), PropertyInvalidValueException);
    EXPECT_NO_THROW(setRequest("K", "", std::string(propertyprotocol::maxValueBytes, 'x')));
    EXPECT_THROW(setRequest("K", "", std::string(propertyprotocol::maxValueBytes + 1, 'x')),
                 PropertyInvalidValueException);
}

TEST(Messages, ReadsAValue) {
    EXPECT_EQ(readValue("K", R"({"param":"K","value":"a\u00e4\n"})"), "a\xc3\xa4\n");
    EXPECT_EQ(readValue("K", R"({"value":"","param":"K","more":1})"), "");
}

TEST(Messages, RefusesResponsesThatOnlyResembleTheUsualForm) {
    EXPECT_EQ(readValue("K", R"({"param":"K","value":"a}"})"), "a}");
    EXPECT_EQ(readValue("K", R"({"param":"K","value":"a\"}"})"), "a\"}");
    EXPECT_EQ(readValue("a\"b", R"({"param":"a\"b","value":"v"})"), "v");
    for (const char* response :
         {R"({"param":"K","value":"a","value":"b"})", R"({"param":"K","value":"a\"})", R"({"param":"K","value":"a"}"})",
          R"({"param":"K","value":"})", R"({"param":"K","value":"a")", R"({"param":"Kx","value":"a"})"}) {
        EXPECT_THROW(readValue("K", response), PropertyProtocolException) << response;
        EXPECT_THROW(checkSetResponse("K", response), PropertyProtocolException) << response;
    }
    EXPECT_THROW(readValue("a\"b", R"({"param":"a"b","value":"v"})"), PropertyProtocolException);
}

TEST(Messages, ReadsAPage) {
    const PropertyPage page =
        readPage("A", R"({"properties":[{"param":"A.1","value":"x"},{"param":"A.2","value":""}],"next":"A.2"})");
    ASSERT_EQ(page.properties.size(), 2U);
    EXPECT_EQ(page.properties[0].key, "A.1");
    EXPECT_EQ(page.properties[0].value, "x");
    EXPECT_EQ(page.next, "A.2");
    EXPECT_EQ(readPage("A", R"({"properties":[]})").next, "");
}

template <typename Exception>
void expectError(const char* code, const char* text) {
    const std::string answer = std::string(R"({"param":"X.Y","error":")") + code + R"(","reason":"so it is"})";
    try {
        readValue("X.Y", answer);
        ADD_FAILURE() << code << " was read as a value";
    } catch (const Exception& error) {
        EXPECT_STREQ(error.what(), text);
        EXPECT_EQ(typeid(error), typeid(Exception)) << code;
    }
    EXPECT_THROW(checkSetResponse("X.Y", answer), Exception);
    EXPECT_THROW(readPage("X.Y", answer), Exception);
}

TEST(Messages, EachErrorHasItsException) {
    expectError<PropertyNotFoundException>("not-found", "Property 'X.Y': unknown key: so it is");
    expectError<PropertyInvalidValueException>("invalid-value", "Property 'X.Y': invalid value: so it is");
    expectError<PropertyReadOnlyException>("read-only", "Property 'X.Y': read-only: so it is");
    expectError<PropertyProtocolException>("bad-request", "Property 'X.Y': bad request: so it is");
    expectError<PropertyStorageException>("storage", "Property 'X.Y': cannot be stored: so it is");
    expectError<PropertyException>("brand-new", "Property 'X.Y': error 'brand-new': so it is");
}

TEST(Messages, AnErrorWithoutAReasonIsStillAnError) {
    try {
        readValue("X.Y", R"({"error":"not-found"})");
        ADD_FAILURE();
    } catch (const PropertyNotFoundException& error) {
        EXPECT_STREQ(error.what(), "Property 'X.Y': unknown key");
    }
    EXPECT_THROW(readValue("X.Y", R"({"error":7})"), PropertyException);
}

TEST(Messages, MalformedAnswersAreProtocolErrors) {
    const std::string deep = std::string(100000, '[');
    for (const std::string& answer :
         {std::string(), std::string("x"), std::string("[]"), std::string("null"), std::string("\"text\""), deep,
          std::string(R"({"param":"K"})"), std::string(R"({"param":"K","value":7})"),
          std::string(R"({"param":"K","value":{}})"), std::string(R"({"param":"Other","value":"x"})"),
          std::string("{\"param\":\"K\",\"value\":\"x\""), std::string("\0\0\0", 3)}) {
        EXPECT_THROW(readValue("K", answer), PropertyProtocolException) << answer.substr(0, 40);
        EXPECT_THROW(readPage("K", answer), PropertyProtocolException) << answer.substr(0, 40);
    }
    EXPECT_THROW(readPage("K", R"({"properties":[7]})"), PropertyProtocolException);
    EXPECT_THROW(readPage("K", R"({"properties":[{"param":"A"}]})"), PropertyProtocolException);
    EXPECT_THROW(checkSetResponse("K", R"({"param":"L"})"), PropertyProtocolException);
}

}  // namespace
