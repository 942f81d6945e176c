#include "service/Codec.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <random>

#include "propertyprotocol/Json.h"
#include "propertyprotocol/Utf8.h"

namespace propertyservice {
namespace {

Json::Value parsed(const std::string& json) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(json.data(), json.data() + json.size(), &value, &errors)) << json << errors;
    return value;
}

std::string randomText(std::mt19937& random) {
    static const std::vector<std::string> letters{
        "a", "Z", "\"", "\\", "\n",     "\t", "\x01", "\x1f", "\x7f", "/", "{", "}", ":",  ",",
        "'", " ", "ä",  "€",  "\u2028", "𝄞",  "\\u",  "é",    "0",    "-", ".", "_", "\r", "\xef\xbf\xbf"};
    std::string text;
    for (auto length = random() % 12; length > 0; --length) text += letters[random() % letters.size()];
    return text;
}

TEST(Codec, OutputIsReadByAnotherParser) {
    std::mt19937 random(1);
    for (int round = 0; round < 5000; ++round) {
        const std::string key = randomText(random);
        const std::string value = randomText(random);
        const std::string source = randomText(random);
        const Json::Value answer = parsed(valueAnswer(key, value));
        EXPECT_EQ(answer["param"].asString(), key);
        EXPECT_EQ(answer["value"].asString(), value);
        EXPECT_EQ(answer.size(), 2U);
        const Json::Value change = parsed(propertyprotocol::changeMessage(key, value, source));
        EXPECT_EQ(change["param"].asString(), key);
        EXPECT_EQ(change["value"].asString(), value);
        EXPECT_EQ(change["source"].asString(), source);
        EXPECT_EQ(change.size(), 3U);
        const Json::Value error = parsed(errorAnswer(key, "storage", value));
        EXPECT_EQ(error["param"].asString(), key);
        EXPECT_EQ(error["error"].asString(), "storage");
        EXPECT_EQ(error["reason"].asString(), value);
    }
}

TEST(Codec, ControlCharactersAreEscaped) {
    for (int byte = 0; byte < 0x80; ++byte) {
        std::string json;
        propertyprotocol::appendString(json, std::string(1, static_cast<char>(byte)));
        const bool isEscape = byte < 0x20 || byte == 0x7f || byte == '"' || byte == '\\';
        EXPECT_EQ(json[1] == '\\', isEscape) << byte << json;
        EXPECT_EQ(parsed("[" + json + "]")[0].asString(), std::string(1, static_cast<char>(byte)));
    }
}

TEST(Codec, ReadsRequestsOfAnotherWriter) {
    std::mt19937 random(2);
    Json::StreamWriterBuilder plain;
    Json::StreamWriterBuilder utf8;
    utf8["emitUTF8"] = true;
    utf8["indentation"] = "";
    for (int round = 0; round < 5000; ++round) {
        Json::Value object;
        object["param"] = randomText(random);
        object["value"] = randomText(random);
        if (round % 2 == 0) object["source"] = randomText(random);
        if (round % 3 == 0) object["other"]["nested"][2] = randomText(random);
        const std::string payload = Json::writeString(round % 5 == 0 ? utf8 : plain, object);
        const SetRequest request = readSet(payload);
        EXPECT_EQ(request.param, object["param"].asString());
        EXPECT_EQ(request.value, object["value"].asString());
        EXPECT_EQ(request.source, round % 2 == 0 ? object["source"].asString() : "");
    }
}

TEST(Codec, ReadsImportsOfAnotherWriter) {
    std::mt19937 random(4);
    Json::StreamWriterBuilder plain;
    for (int round = 0; round < 1000; ++round) {
        Json::Value object;
        object["properties"] = Json::Value(Json::arrayValue);
        for (auto count = random() % 6; count > 0; --count) {
            Json::Value property;
            property["param"] = randomText(random);
            property["value"] = count % 3 == 0 ? Json::Value() : Json::Value(randomText(random));
            object["properties"].append(property);
        }
        object["source"] = randomText(random);
        object["apply"] = round % 2 == 0;
        const ImportRequest request = readImport(Json::writeString(plain, object));
        ASSERT_EQ(request.writes.size(), object["properties"].size());
        for (Json::ArrayIndex index = 0; index < request.writes.size(); ++index) {
            const Json::Value& property = object["properties"][index];
            EXPECT_EQ(request.writes[index].param, property["param"].asString());
            EXPECT_EQ(request.writes[index].value.has_value(), !property["value"].isNull());
            EXPECT_EQ(request.writes[index].value.value_or(""), property["value"].asString());
        }
        EXPECT_EQ(request.source, object["source"].asString());
        EXPECT_EQ(request.apply, round % 2 == 0);
    }
}

TEST(Codec, DescriptionsAreReadByAnotherParser) {
    std::mt19937 random(5);
    for (int round = 0; round < 1000; ++round) {
        const std::string key = randomText(random);
        Definition definition;
        definition.type = round % 4 == 0 ? "secret" : "text";
        definition.defaultValue = randomText(random);
        definition.description = randomText(random);
        definition.readOnly = round % 3 == 0;
        if (round % 5 == 0) definition.limits = "\"maxLength\":5";
        const Json::Value json = parsed(description(key, definition, round % 2 == 0));
        EXPECT_EQ(json["param"].asString(), key);
        EXPECT_EQ(json["description"].asString(), definition.description);
        EXPECT_EQ(json["readOnly"].asBool(), definition.readOnly);
        EXPECT_EQ(json["volatile"].asBool(), round % 2 == 0);
        EXPECT_EQ(json["maxLength"].isInt(), round % 5 == 0);
        const bool hidden = definition.isSecret() && !definition.defaultValue.empty();
        EXPECT_EQ(json["default"].asString(), hidden ? "***" : definition.defaultValue);
    }
}

TEST(Codec, SurvivesRandomDamageInImports) {
    std::mt19937 random(6);
    int refused = 0;
    for (int round = 0; round < 10000; ++round) {
        std::string payload =
            R"({"properties":[{"param":"a","value":"1"},{"param":"b","value":null}],"apply":true,"prefix":"x"})";
        for (auto hits = 1 + random() % 3; hits > 0; --hits) {
            const auto at = random() % payload.size();
            if (random() % 2 == 0) {
                payload[at] = static_cast<char>(random() % 256);
            } else {
                payload.erase(at, 1 + random() % 5);
            }
        }
        try {
            for (const ImportRequest::Write& write : readImport(payload).writes) {
                EXPECT_TRUE(propertyprotocol::isUtf8WithoutNul(write.param) &&
                            propertyprotocol::isUtf8WithoutNul(write.value.value_or("")));
            }
            readDescribe(payload);
        } catch (const BadRequest&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 5000);
}

TEST(Codec, SurvivesRandomDamage) {
    std::mt19937 random(3);
    int refused = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string payload =
            R"({"param":"System.Provision.Period","value":"60\u00e40","source":"me","x":[1,{"y":2}]})";
        for (auto hits = 1 + random() % 3; hits > 0; --hits) {
            const auto at = random() % payload.size();
            switch (random() % 3) {
                case 0:
                    payload[at] = static_cast<char>(random() % 256);
                    break;
                case 1:
                    payload.erase(at, 1 + random() % 5);
                    break;
                default:
                    payload.insert(at, payload.substr(random() % payload.size(), 5));
            }
        }
        try {
            const SetRequest request = readSet(payload);
            EXPECT_TRUE(propertyprotocol::isUtf8WithoutNul(request.param) &&
                        propertyprotocol::isUtf8WithoutNul(request.value) &&
                        propertyprotocol::isUtf8WithoutNul(request.source));
        } catch (const BadRequest&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 5000);
    EXPECT_EQ(readGet(R"({"param":"a"})").param, "a");
}

/// What readSet makes of the payload: the request, or why it is refused.
std::string outcomeOf(const std::string& payload) {
    try {
        const SetRequest request = readSet(payload);
        return propertyprotocol::changeMessage(request.param, request.value, request.source);
    } catch (const BadRequest& error) {
        return error.param() + ": " + error.what();
    }
}

// A blank in front makes the JSON library read a request that needs no parser otherwise.
TEST(Codec, PlainRequestsMeanWhatTheParserReads) {
    std::mt19937 random(7);
    const std::vector<std::string> parts{
        "{",    "}",           ",",     ":",    "\"",   "\"param\"", "\"value\"", "\"source\"", "\"a\"",
        "\"\"", "\"\\u0041\"", "\"ä\"", "\x7f", "\x1f", "x",         " ",         "1",          std::string(1, '\0')};
    int accepted = 0;
    for (int round = 0; round < 50000; ++round) {
        std::vector<std::string> tokens{"{",     "\"param\"", ":",          "\"a b\"", ",",      "\"value\"", ":",
                                        "\"1\"", ",",         "\"source\"", ":",       "\"me\"", "}"};
        if (round % 2 == 0) tokens.erase(tokens.begin() + 8, tokens.begin() + 12);
        for (auto changes = random() % 3; changes > 0; --changes) {
            const auto at = tokens.begin() + static_cast<std::ptrdiff_t>(random() % tokens.size());
            const std::string& part = parts[random() % parts.size()];
            if (random() % 2 == 0) {
                *at = part;
            } else {
                tokens.insert(at, part);
            }
        }
        std::string payload;
        for (const std::string& token : tokens) payload += token;
        if (round % 3 == 0) payload[random() % payload.size()] = static_cast<char>(random() % 256);
        const std::string outcome = outcomeOf(payload);
        ASSERT_EQ(outcome, outcomeOf(" " + payload)) << payload;
        accepted += outcome.front() == '{' ? 1 : 0;
    }
    EXPECT_GT(accepted, 10000);
}

TEST(Codec, PlainRequestsHaveTheLimitsOfOthers) {
    const auto request = [](std::size_t value, std::size_t source) {
        return R"({"param":"a","value":")" + std::string(value, 'v') + R"(","source":")" + std::string(source, 's') +
               "\"}";
    };
    for (const std::size_t size : {maxValueBytes, maxValueBytes + 1}) {
        EXPECT_EQ(outcomeOf(request(1, size)), outcomeOf(" " + request(1, size)));
    }
    const std::size_t around = request(0, 0).size();
    EXPECT_EQ(readSet(request(maxRequestBytes - around, 0)).value.size(), maxRequestBytes - around);
    EXPECT_THROW(readSet(request(maxRequestBytes - around + 1, 0)), BadRequest);
}

TEST(Codec, CommasAndBracketsInsideStringsAreNotCounted) {
    const std::string value = "\\\"" + std::string(5000, ',') + std::string(5000, '[');
    EXPECT_EQ(readSet(R"({"param":"a","value":")" + value + "\"}").value.size(), 10001U);
}

TEST(Codec, ImportsAreLimited) {
    const auto import = [](std::size_t count) {
        std::string payload = R"({"properties":[)";
        for (std::size_t index = 0; index < count; ++index) payload += R"({"param":"a","value":""},)";
        payload.back() = ']';
        return readImport(payload + "}").writes.size();
    };
    EXPECT_EQ(import(60000), 60000U);
    EXPECT_THROW(import(70000), BadRequest);
}

struct Hostile {
    const char* name;
    std::string payload;
    const char* param;
    const char* reason;
};

class HostilePayload : public testing::TestWithParam<Hostile> {};

TEST_P(HostilePayload, IsABadRequest) {
    try {
        readSet(GetParam().payload);
        FAIL() << "was accepted";
    } catch (const BadRequest& error) {
        EXPECT_STREQ(error.what(), GetParam().reason);
        EXPECT_EQ(error.param(), GetParam().param);
    }
    EXPECT_EQ(readSet(R"({"param":"a","value":""})").param, "a") << "the next request must succeed";
}

constexpr char notAnObject[] = "the payload must be a JSON object";
constexpr char notJson[] = "the payload is not JSON in UTF-8";
constexpr char duplicateMember[] = "the payload has a duplicate member";
constexpr char tooDeep[] = "the payload is nested more than 32 deep";
INSTANTIATE_TEST_SUITE_P(
    All, HostilePayload,
    testing::Values(
        Hostile{"Empty", "", "", notJson}, Hostile{"Text", "hello", "", notJson},
        Hostile{"Array", R"(["param","value"])", "", notAnObject}, Hostile{"Null", "null", "", notAnObject},
        Hostile{"Unfinished", R"({"param":"a","value":"b")", "", notJson},
        Hostile{"TrailingComma", R"({"param":"a","value":"b",})", "", notJson},
        Hostile{"TrailingText", R"({"param":"a","value":"b"}{})", "", notJson},
        Hostile{"Comment", R"({"param":"a",/* */"value":"b"})", "", notJson},
        Hostile{"DuplicateMember", R"({"param":"a","param":"b","value":"c"})", "", duplicateMember},
        Hostile{"DuplicateMemberBelow", R"({"param":"a","value":"c","x":{"y":1,"y":2}})", "", duplicateMember},
        Hostile{"DeepNesting", R"({"param":"a","value":"c","x":)" + std::string(100000, '[') + "}", "",
                "the payload has more than 1000 members and elements"},
        Hostile{"LessDeepNesting", R"({"param":"a","value":"c","x":)" + std::string(900, '[') + "}", "", tooDeep},
        Hostile{"ManyElements", R"({"param":"a","value":"c","x":[0)" + std::string(1000, ',') + "]}", "",
                "the payload has more than 1000 members and elements"},
        Hostile{"ManyObjects", R"({"param":"a","value":"c","x":)" + std::string(1000, '{') + "}", "",
                "the payload has more than 1000 members and elements"},
        Hostile{"SourceTooLong", R"({"param":"a","value":"c","source":")" + std::string(65537, 's') + "\"}", "a",
                "\"source\" is longer than 65536 bytes"},
        Hostile{"DeepButClosed",
                R"({"param":"a","value":"c","x":)" + std::string(200, '[') + std::string(200, ']') + "}", "", tooDeep},
        Hostile{"Huge", R"({"param":"a","value":")" + std::string(maxRequestBytes, 'x') + "\"}", "",
                "the payload is larger than 1048576 bytes"},
        Hostile{"ParamMissing", R"({"value":"b"})", "", "\"param\" is missing"},
        Hostile{"ParamNumber", R"({"param":5,"value":"b"})", "", "\"param\" must be a string"},
        Hostile{"ValueMissing", R"({"param":"a"})", "a", "\"value\" is missing"},
        Hostile{"ValueNull", R"({"param":"a","value":null})", "a", "\"value\" must be a string"},
        Hostile{"ValueNumber", R"({"param":"a","value":1})", "a", "\"value\" must be a string"},
        Hostile{"ValueArray", R"({"param":"a","value":["b"]})", "a", "\"value\" must be a string"},
        Hostile{"SourceNumber", R"({"param":"a","value":"b","source":1})", "a", "\"source\" must be a string"},
        Hostile{"InvalidUtf8", "{\"param\":\"a\",\"value\":\"\xff\"}", "", notJson},
        Hostile{"OverlongUtf8", "{\"param\":\"a\",\"value\":\"\xc0\x80\"}", "", notJson},
        Hostile{"SurrogateInUtf8", "{\"param\":\"a\",\"value\":\"\xed\xa0\x80\"}", "", notJson},
        Hostile{"CutUtf8", "{\"param\":\"a\",\"value\":\"\xe2\x82", "", notJson},
        Hostile{"BeyondUnicode", "{\"param\":\"a\",\"value\":\"\xf4\x90\x80\x80\"}", "", notJson},
        Hostile{"RawNul", std::string("{\"param\":\"a\",\"value\":\"b\0\"}", 25), "", notJson},
        Hostile{"RawNewline", "{\"param\":\"a\",\"value\":\"b\nc\"}", "", notJson},
        Hostile{"EscapedNul", R"({"param":"a","value":"b\u0000c"})", "a", "\"value\" must not contain a NUL"},
        Hostile{"LowSurrogate", R"({"param":"a","value":"\udc00"})", "", notJson},
        Hostile{"HighSurrogate", R"({"param":"a","value":"\ud800"})", "", notJson},
        Hostile{"SurrogateAndLetter", R"({"param":"a","value":"\ud800\u0041"})", "", notJson}),
    [](const auto& row) { return row.param.name; });

TEST(Codec, UnknownMembersAreIgnored) {
    EXPECT_EQ(readGet(R"({"param":"a","value":7,"x":{"y":[null,1.5,true]}})").param, "a");
    EXPECT_EQ(readList(R"({"prefix":"p","param":3})").prefix, "p");
}

TEST(Codec, ListRequiresAPrefix) {
    EXPECT_THROW(readList("{}"), BadRequest);
    EXPECT_THROW(readList(R"({"prefix":"","after":1})"), BadRequest);
    EXPECT_EQ(readList(R"({"prefix":"","after":"k"})").after, "k");
}

TEST(Codec, KeepsNothingFromThePreviousRequest) {
    EXPECT_EQ(readSet(R"({"param":"a","value":"b","source":"s"})").source, "s");
    EXPECT_EQ(readSet(R"({"param":"a","value":"b"})").source, "");
}

TEST(Codec, ListOfUncataloguedValuesNeedsNoPrefix) {
    const ListRequest all = readList(R"({"uncatalogued":true})");
    EXPECT_TRUE(all.uncatalogued);
    EXPECT_EQ(all.prefix, "");
    EXPECT_EQ(all.after, "");
    EXPECT_EQ(readList(R"({"uncatalogued":true,"after":"k","prefix":5})").after, "k");
    EXPECT_FALSE(readList(R"({"uncatalogued":false,"prefix":"p"})").uncatalogued);
    EXPECT_FALSE(readList(R"({"uncatalogued":null,"prefix":"p"})").uncatalogued);
    EXPECT_THROW(readList(R"({"uncatalogued":false})"), BadRequest) << "the prefix is missing";
    EXPECT_THROW(readList(R"({"uncatalogued":true,"after":7})"), BadRequest);
    for (const char* other : {"1", "0", "\"true\"", "[]", "{}"}) {
        try {
            readList("{\"uncatalogued\":" + std::string(other) + ",\"prefix\":\"\"}");
            ADD_FAILURE() << other;
        } catch (const BadRequest& error) {
            EXPECT_STREQ(error.what(), "\"uncatalogued\" must be true or false") << other;
            EXPECT_EQ(error.param(), "");
        }
    }
}

}  // namespace
}  // namespace propertyservice
