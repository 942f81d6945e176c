// Requests must be JSON as RFC 8259 defines it, also in ignored members.
#include "data/JsonDocuments.h"

#include <gtest/gtest.h>

#include <set>

#include "FakeStore.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"
#include "service/Codec.h"
#include "service/PropertyService.h"

namespace propertyservice {
namespace {

const std::vector<std::string> topics{propertyprotocol::getTopic, propertyprotocol::setTopic,
                                      propertyprotocol::listTopic, propertyprotocol::describeTopic,
                                      propertyprotocol::importTopic};

class JsonRequest : public testing::Test {
 protected:
    std::string answer(const std::string& topic, const std::string& payload) {
        const auto messages = service_.handle({{topic, payload, "me/reply", "", 0}});
        return messages.empty() ? "no answer" : messages.back().payload;  // the answer follows the changes
    }
    bool isRefused(const std::string& topic, const std::string& payload) {
        const std::string text = answer(topic, payload);
        return text.find("the payload is not JSON in UTF-8") != std::string::npos ||
               text.find("the payload has a duplicate member") != std::string::npos;
    }

    const std::vector<data::JsonDocument> documents_ = data::jsonDocuments(JSON_DOCUMENTS);

 private:
    const Catalogue catalogue_ = Catalogue::parse(
        R"({"version": 1, "keys": {"k": {"type": "text", "default": "", "description": "d"}}})", "c.json");
    FakeStore store_;
    PropertyService service_{catalogue_, store_};
};

TEST_F(JsonRequest, IsRefusedUnlessItIsJson) {
    for (const data::JsonDocument& document : documents_) {
        for (const std::string& topic : topics) {
            EXPECT_EQ(isRefused(topic, document.text), !document.accepted) << topic << " " << document.line;
        }
    }
}

TEST_F(JsonRequest, IsRefusedIfAnIgnoredMemberIsNotJson) {
    for (const data::JsonDocument& document : documents_) {
        const std::string member = R"(,"x":)" + document.text + "}";
        const std::string payload =
            R"({"param":"k","value":"v","prefix":"k","properties":[{"param":"k","value":"w"}])" + member;
        for (const std::string& topic : topics) {
            EXPECT_EQ(isRefused(topic, payload), !document.accepted) << topic << " " << document.line;
            EXPECT_EQ(answer(topic, payload).find("\"error\"") == std::string::npos, document.accepted)
                << topic << " " << document.line;
        }
        EXPECT_EQ(
            isRefused(propertyprotocol::importTopic, R"({"properties":[{"param":"k","value":"w")" + member + "]}"),
            !document.accepted)
            << document.line;
        EXPECT_EQ(isRefused(propertyprotocol::getTopic, R"({"x":)" + document.text + R"(,"param":"k"})"),
                  !document.accepted)
            << document.line;
    }
}

TEST_F(JsonRequest, DocumentsAreUnique) {
    std::set<std::string> texts;
    for (const data::JsonDocument& document : documents_) {
        EXPECT_TRUE(texts.insert(document.text).second) << document.line;
    }
}

TEST_F(JsonRequest, MayHave32Levels) {
    const auto nested = [](std::size_t depth) {
        return R"({"param":"k","x":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
    };
    EXPECT_EQ(answer(propertyprotocol::getTopic, nested(maxNesting)), R"({"param":"k","value":""})");
    EXPECT_EQ(answer(propertyprotocol::getTopic, nested(maxNesting + 1)),
              R"({"param":"","error":"bad-request","reason":"the payload is nested more than 32 deep"})");
}

// The tokens counted include the comma behind "k" and the bracket of the object.
TEST_F(JsonRequest, MayHave1000Tokens) {
    const auto withTokens = [](std::size_t tokens) {
        return R"({"param":"k","x":[0)" + std::string(2 * (tokens - 3), ' ') + "]}";
    };
    const auto filled = [&withTokens](std::size_t tokens) {
        std::string payload = withTokens(tokens);
        for (std::size_t at = payload.find(' '); payload[at] == ' '; at += 2) {
            payload[at] = ',';
            payload[at + 1] = '0';
        }
        return payload;
    };
    EXPECT_EQ(propertyprotocol::countJsonTokens(filled(maxRequestTokens)), maxRequestTokens);
    EXPECT_EQ(answer(propertyprotocol::getTopic, filled(maxRequestTokens)), R"({"param":"k","value":""})");
    EXPECT_EQ(answer(propertyprotocol::getTopic, filled(maxRequestTokens + 1)),
              R"({"param":"","error":"bad-request","reason":"the payload has more than 1000 members and elements"})");
}

TEST_F(JsonRequest, MayHaveOneMebibyte) {
    const auto sized = [](std::size_t bytes) {
        const std::string begin = R"({"param":"k","x":")";
        return begin + std::string(bytes - begin.size() - 2, 'x') + "\"}";
    };
    EXPECT_EQ(answer(propertyprotocol::getTopic, sized(maxRequestBytes)), R"({"param":"k","value":""})");
    EXPECT_EQ(answer(propertyprotocol::getTopic, sized(maxRequestBytes + 1)),
              R"({"param":"","error":"bad-request","reason":"the payload is larger than 1048576 bytes"})");
    const auto import = [](std::size_t bytes) {
        const std::string begin = R"({"properties":[],"x":")";
        return begin + std::string(bytes - begin.size() - 2, 'x') + "\"}";
    };
    EXPECT_EQ(answer(propertyprotocol::importTopic, import(maxImportBytes)), R"({"accepted":0})");
    EXPECT_EQ(answer(propertyprotocol::importTopic, import(maxImportBytes + 1)),
              R"({"param":"","error":"bad-request","reason":"the payload is larger than 15728640 bytes"})");
}

TEST_F(JsonRequest, MayHaveASourceOf64KiB) {
    const auto from = [](std::size_t bytes) {
        return R"({"param":"k","value":"v","source":")" + std::string(bytes, 's') + "\"}";
    };
    EXPECT_EQ(answer(propertyprotocol::setTopic, from(maxValueBytes)), R"({"param":"k","value":"v"})");
    EXPECT_EQ(answer(propertyprotocol::setTopic, from(maxValueBytes + 1)),
              R"({"param":"k","error":"bad-request","reason":"\"source\" is longer than 65536 bytes"})");
}

TEST_F(JsonRequest, MayHaveANulInIgnoredMembersOnly) {
    EXPECT_EQ(answer(propertyprotocol::setTopic, R"({"param":"k","value":"a\u0000b"})"),
              R"({"param":"k","error":"bad-request","reason":"\"value\" must not contain a NUL"})");
    EXPECT_EQ(answer(propertyprotocol::setTopic, R"({"param":"k","value":"a","x":"a\u0000b"})"),
              R"({"param":"k","value":"a"})");
}

TEST_F(JsonRequest, SurrogatePairsBecomeOneCharacter) {
    EXPECT_EQ(answer(propertyprotocol::setTopic, R"({"param":"k","value":"\ud834\udd1e"})"),
              "{\"param\":\"k\",\"value\":\"\xf0\x9d\x84\x9e\"}");
}

}  // namespace
}  // namespace propertyservice
