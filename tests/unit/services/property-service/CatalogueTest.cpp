#include "catalogue/Catalogue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "TemporaryFolder.h"
#include "data/UrlVectors.h"

namespace propertyservice {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string withKeys(const std::string& keys) { return "{\"version\": 1, \"keys\": {\n" + keys + "\n}}"; }

std::string definition(const std::string& rest) { return "{\"description\": \"d\", " + rest + "}"; }

const CatalogueKey* find(const Catalogue& catalogue, const std::string& key) {
    const auto found = std::find_if(catalogue.keys().begin(), catalogue.keys().end(),
                                    [&key](const CatalogueKey& entry) { return entry.key == key; });
    return found == catalogue.keys().end() ? nullptr : &*found;
}

std::string errorOf(const std::string& text) {
    try {
        Catalogue::parse(text, "c.json");
    } catch (const CatalogueException& error) {
        return error.what();
    }
    return "no error";
}

TEST(Catalogue, ExpandsIndexPatternsAndSortsKeys) {
    const Catalogue catalogue = Catalogue::parse(
        withKeys("\"b.Key\": " + definition(R"("type": "text", "default": "x")") +
                 ",\n\"F.{0-2}Lock\": " + definition(R"("type": "boolean", "default": "0", "readOnly": true)") +
                 ",\"F.{9-10}.{0-1}\": " + definition(R"("type": "text", "default": "")")),
        "c.json");
    std::vector<std::string> keys;
    for (const CatalogueKey& entry : catalogue.keys()) keys.emplace_back(entry.key);
    EXPECT_THAT(keys, ElementsAre("F.0Lock", "F.10.0", "F.10.1", "F.1Lock", "F.2Lock", "F.9.0", "F.9.1", "b.Key"));
    EXPECT_EQ(find(catalogue, "b.Key")->definition->defaultValue, "x");
    EXPECT_EQ(find(catalogue, "b.Key")->definition->description, "d");
    EXPECT_EQ(find(catalogue, "b.Key")->line, 2);
    EXPECT_TRUE(find(catalogue, "F.2Lock")->definition->readOnly);
    EXPECT_FALSE(find(catalogue, "b.Key")->definition->readOnly);
}

struct RuleCase {
    const char* definition;
    const char* value;
    const char* objection;  // empty: allowed
};

class Rule : public testing::TestWithParam<RuleCase> {};

TEST_P(Rule, EnforcesItsLimits) {
    const Catalogue catalogue = Catalogue::parse(withKeys("\"k\": " + definition(GetParam().definition)), "c.json");
    EXPECT_EQ(catalogue.keys().front().definition->rule(GetParam().value), GetParam().objection);
}

TEST(UrlRule, AllowsUrlsWithAScheme) {
    const Catalogue catalogue =
        Catalogue::parse(withKeys("\"k\": " + definition(R"("type": "url", "default": "")")), "c");
    for (const data::UrlVector& row : data::urlVectors(URL_VECTORS)) {
        const bool allowed = row.ok && row.url.find("://") < row.url.find_first_of("/?#");
        EXPECT_EQ(catalogue.keys().front().definition->rule(row.url).empty(), allowed)
            << testing::PrintToString(row.url);
    }
}

constexpr char integer[] = R"("type": "integer", "min": -5, "max": 7, "default": "0")";
constexpr char anyInteger[] = R"("type": "integer", "default": "0")";
constexpr char choice[] = R"("type": "enum", "values": ["a", ""], "default": "a")";
constexpr char pattern[] = R"("type": "pattern", "pattern": "a|bc*", "default": "a", "maxLength": 4)";
constexpr char url[] = R"("type": "url", "default": "", "maxLength": 64)";
constexpr char https[] = R"("type": "url", "default": "", "schemes": ["https", "ldaps"])";
constexpr char mac[] = R"("type": "mac", "default": "")";
constexpr char secret[] = R"("type": "secret", "default": "", "maxLength": 4)";
constexpr char anyOrder[] = R"("type": "pattern", "pattern": "a|ab|(a|b|c)*", "default": "a")";
constexpr char pin[] = R"("type": "secret", "default": "", "pattern": "([0-9]{4})?")";
constexpr char notAUrl[] = "must be a URL such as https://server.example/path, or empty";
constexpr char notAMac[] = "must be a MAC address such as 00:11:22:aa:bb:cc, or empty";
INSTANTIATE_TEST_SUITE_P(
    MoreTypes, Rule,
    testing::Values(RuleCase{url, "", ""}, RuleCase{url, "https://server.example/a/b?c=%20#d", ""},
                    RuleCase{url, "ldap://h", ""}, RuleCase{url, "http://u:p@h:8080/%MACD.xml", ""},
                    RuleCase{url, "http://[fe80::1]:80/", ""}, RuleCase{url, "http://[fe80::1]", ""},
                    RuleCase{url, "http://h\xc3\xb6st/", notAUrl}, RuleCase{url, "h", notAUrl},
                    RuleCase{url, "http://", notAUrl}, RuleCase{url, "http:///x", notAUrl},
                    RuleCase{url, "http://a b/", notAUrl}, RuleCase{url, "http://a/b c", notAUrl},
                    RuleCase{url, "http://a:0/", notAUrl}, RuleCase{url, "http://a:/", notAUrl},
                    RuleCase{url, "http://a:65536/", notAUrl}, RuleCase{url, "://a", notAUrl},
                    RuleCase{url, "http://a\n", notAUrl}, RuleCase{url, "http://u@h:99999", notAUrl},
                    RuleCase{url, "1http://a", notAUrl},
                    RuleCase{url, "http://0123456789012345678901234567890123456789012345678901234567",
                             "must be at most 64 bytes long"},
                    RuleCase{https, "HTTPS://h/", ""}, RuleCase{https, "", ""},
                    RuleCase{https, "http://h/", "must begin with https:// or ldaps://"}, RuleCase{mac, "", ""},
                    RuleCase{mac, "00:11:22:aA:Bb:ff", ""}, RuleCase{mac, "00-11-22-33-44-55", ""},
                    RuleCase{mac, "001122334455", ""}, RuleCase{mac, "00:11:22-33:44:55", notAMac},
                    RuleCase{mac, "00:11:22:33:44", notAMac}, RuleCase{mac, "00:11:22:33:44:5g", notAMac},
                    RuleCase{mac, "00.11.22.33.44.55", notAMac}, RuleCase{mac, "0:011:22:33:44:55", notAMac},
                    RuleCase{mac, "00112233445g", notAMac}, RuleCase{mac, "a", notAMac},
                    RuleCase{mac, "00:11:22:33:44:55:66", notAMac}, RuleCase{secret, "abcd", ""},
                    RuleCase{secret, "abcde", "must be at most 4 bytes long, not 5"}, RuleCase{pin, "1234", ""},
                    RuleCase{pin, "123", "must match the pattern ([0-9]{4})?"}));
constexpr char binary[] = "must be 0 or 1 (or false or true)";
constexpr char wholeNumbers[] = "must be a whole number";
INSTANTIATE_TEST_SUITE_P(
    Edges, Rule,
    testing::Values(
        RuleCase{R"("type": "text", "maxLength": 0, "default": "")", "", ""},
        RuleCase{R"("type": "text", "maxLength": 0, "default": "")", "a", "must be at most 0 bytes long, not 1"},
        RuleCase{R"("type": "text", "maxLength": 2, "default": "")", "\xc3\xa4", ""},
        RuleCase{R"("type": "text", "maxLength": 2, "default": "")", "\xc3\xa4z",
                 "must be at most 2 bytes long, not 3"},
        RuleCase{integer, "-4", ""}, RuleCase{integer, "6", ""}, RuleCase{integer, "0", ""},
        RuleCase{integer, "-0", ""}, RuleCase{integer, "007", ""},
        RuleCase{integer, " 1", "must be a whole number from -5 to 7"},
        RuleCase{integer, "-", "must be a whole number from -5 to 7"},
        RuleCase{integer, "1.0", "must be a whole number from -5 to 7"},
        RuleCase{integer, "0x1", "must be a whole number from -5 to 7"},
        RuleCase{integer, "a", "must be a whole number from -5 to 7"}, RuleCase{anyInteger, "9223372036854775807", ""},
        RuleCase{anyInteger, "9223372036854775808", wholeNumbers},
        RuleCase{anyInteger, "-9223372036854775809", wholeNumbers},
        RuleCase{R"("type": "integer", "min": 1, "default": "1")", "1", ""},
        RuleCase{R"("type": "integer", "min": 1, "default": "1")", "9223372036854775807", ""},
        RuleCase{R"("type": "integer", "max": 1, "default": "1")", "1", ""},
        RuleCase{R"("type": "integer", "max": 1, "default": "1")", "-9223372036854775808", ""},
        RuleCase{R"("type": "integer", "min": 4, "max": 4, "default": "4")", "4", ""},
        RuleCase{R"("type": "integer", "min": 4, "max": 4, "default": "4")", "5", "must be a whole number from 4 to 4"},
        RuleCase{R"("type": "boolean", "default": "1")", "1", ""},
        RuleCase{R"("type": "boolean", "default": "1")", "false", ""},
        RuleCase{R"("type": "boolean", "default": "1")", "2", binary},
        RuleCase{R"("type": "boolean", "default": "1")", "00", binary},
        RuleCase{R"("type": "boolean", "default": "1")", "True", binary},
        RuleCase{R"("type": "boolean", "default": "1")", "", binary}, RuleCase{choice, "a", ""},
        RuleCase{choice, "aa", "must be one of \"a\", \"\""}, RuleCase{choice, "A", "must be one of \"a\", \"\""},
        RuleCase{R"("type": "pattern", "pattern": "x*", "default": "", "maxLength": 3)", "xxx", ""},
        RuleCase{R"("type": "pattern", "pattern": "x*", "default": "", "maxLength": 3)", "xxxx",
                 "must be at most 3 bytes long"},
        RuleCase{R"("type": "pattern", "pattern": "x*", "default": "", "maxLength": 0)", "", ""},
        RuleCase{R"("type": "pattern", "pattern": "bc", "default": "bc")", "abc", "must match the pattern bc"},
        RuleCase{R"("type": "pattern", "pattern": "bc", "default": "bc")", "bcd", "must match the pattern bc"},
        RuleCase{https, "https://h", ""}, RuleCase{https, "ldaps://h", ""},
        RuleCase{https, "httpss://h", "must begin with https:// or ldaps://"}, RuleCase{mac, "00112233445", notAMac},
        RuleCase{mac, "0011223344556", notAMac}, RuleCase{mac, "00:11:22:33:44:5", notAMac},
        RuleCase{mac, "00:11:22:33:44:555", notAMac}, RuleCase{mac, "00:11:22:33:44:5/", notAMac},
        RuleCase{mac, "00:11:22:33:44:5:", notAMac}, RuleCase{mac, "00:11:22:33:44:5@", notAMac},
        RuleCase{mac, "00:11:22:33:44:5G", notAMac}, RuleCase{mac, "00:11:22:33:44:5`", notAMac},
        RuleCase{mac, "09:af:AF:33:44:55", ""}, RuleCase{mac, "::::::::::::::::::", notAMac},
        RuleCase{mac, ":0:11:22:33:44:55", notAMac}, RuleCase{secret, "", ""}, RuleCase{secret, "abc", ""}));

TEST(RuleEdges, LongValues) {
    const auto objection = [](const std::string& text, const std::string& value) {
        return Catalogue::parse(withKeys("\"k\": " + definition(text)), "c").keys().front().definition->rule(value);
    };
    const std::string begin = "http://h/";
    EXPECT_EQ(objection(R"("type": "url", "default": "")", begin + std::string(2048 - begin.size(), 'p')), "");
    EXPECT_EQ(objection(R"("type": "url", "default": "")", begin + std::string(2049 - begin.size(), 'p')),
              "must be at most 2048 bytes long");
    EXPECT_EQ(objection(R"("type": "url", "maxLength": 20, "default": "")", begin + std::string(11, 'p')), "");
    EXPECT_EQ(objection(R"("type": "url", "maxLength": 20, "default": "")", begin + std::string(12, 'p')),
              "must be at most 20 bytes long");
    EXPECT_EQ(objection(R"("type": "text", "maxLength": 65536, "default": "")", std::string(65536, 'x')), "");
    EXPECT_EQ(objection(R"("type": "text", "default": "")", std::string(65537, 'x')),
              "must be at most 65536 bytes long, not 65537");
}

INSTANTIATE_TEST_SUITE_P(
    Types, Rule,
    testing::Values(
        RuleCase{R"("type": "text", "maxLength": 2, "default": "")", "ab", ""},
        RuleCase{R"("type": "text", "maxLength": 2, "default": "")", "abc", "must be at most 2 bytes long, not 3"},
        RuleCase{integer, "-5", ""}, RuleCase{integer, "7", ""},
        RuleCase{integer, "8", "must be a whole number from -5 to 7"},
        RuleCase{integer, "-6", "must be a whole number from -5 to 7"},
        RuleCase{integer, "", "must be a whole number from -5 to 7"},
        RuleCase{integer, "1 ", "must be a whole number from -5 to 7"},
        RuleCase{integer, "+1", "must be a whole number from -5 to 7"},
        RuleCase{integer, "99999999999999999999", "must be a whole number from -5 to 7"},
        RuleCase{anyInteger, "-9223372036854775808", ""}, RuleCase{anyInteger, "abc", "must be a whole number"},
        RuleCase{R"("type": "integer", "min": 1, "default": "1")", "0", "must be a whole number of at least 1"},
        RuleCase{R"("type": "integer", "max": 1, "default": "1")", "2", "must be a whole number of at most 1"},
        RuleCase{R"("type": "boolean", "default": "1")", "0", ""},
        RuleCase{R"("type": "boolean", "default": "1")", "true", ""},
        RuleCase{R"("type": "boolean", "default": "1")", "yes", "must be 0 or 1 (or false or true)"},
        RuleCase{choice, "", ""}, RuleCase{choice, "b", "must be one of \"a\", \"\""}, RuleCase{pattern, "bccc", ""},
        RuleCase{pattern, "ab", "must match the pattern a|bc*"},
        RuleCase{pattern, "ba", "must match the pattern a|bc*"}, RuleCase{anyOrder, "abc", ""},
        RuleCase{pattern, "a\n", "must match the pattern a|bc*"},
        RuleCase{pattern, "bcccc", "must be at most 4 bytes long"}));

struct ErrorCase {
    const char* name;
    std::string text;
    const char* error;
};

class CatalogueError : public testing::TestWithParam<ErrorCase> {};

TEST_P(CatalogueError, NamesFileLineAndKey) { EXPECT_EQ(errorOf(GetParam().text), GetParam().error); }

std::string one(const std::string& rest) { return withKeys("\"a.b\": " + definition(rest)); }

INSTANTIATE_TEST_SUITE_P(
    Load, CatalogueError,
    testing::Values(
        ErrorCase{"Empty", "", "c.json:1:1: Syntax error: value, object or array expected."},
        ErrorCase{"Syntax", "{\"version\": 1,\n  \"keys\" {}}", "c.json:2:10: Missing ':' after object member name"},
        ErrorCase{"TrailingText", "{\"version\": 1, \"keys\": {}} x",
                  "c.json:1:28: Extra non-whitespace after JSON value."},
        ErrorCase{"DuplicateKey",
                  withKeys("\"a\": " + definition(R"("type": "text", "default": "")") +
                           ",\n\"a\": " + definition(R"("type": "text", "default": "")")),
                  "c.json:3:1: Duplicate key: 'a'"},
        ErrorCase{"DeepNesting", "{\"version\": 1, \"keys\": " + std::string(500, '[') + std::string(500, ']') + "}",
                  "c.json: is nested too deeply"},
        ErrorCase{"NotAnObject", "[]", "c.json:1: the catalogue must be an object"},
        ErrorCase{"NoVersion", "{\"keys\": {}}", "c.json:1: \"version\" must be 1"},
        ErrorCase{"OtherVersion", "{\"version\": 2, \"keys\": {}}", "c.json:1: \"version\" must be 1"},
        ErrorCase{"NoKeys", "{\"version\": 1}", "c.json:1: \"keys\" is missing or not an object"},
        ErrorCase{"UnknownMember", "{\"version\": 1, \"keys\": {},\n\n\"key\": {}}",
                  "c.json:3: unknown member \"key\""},
        ErrorCase{"DefinitionNotAnObject", withKeys("\"a.b\": 5"), "c.json:2: a.b: the definition must be an object"},
        ErrorCase{"NoType", one(R"("default": "")"), "c.json:2: a.b: \"type\" is missing"},
        ErrorCase{"UnknownType", one(R"("type": "float", "default": "")"),
                  "c.json:2: a.b: unknown type \"float\" (text, integer, boolean, enum, pattern, url, mac or secret)"},
        ErrorCase{"MemberOfAnotherType", one(R"("type": "text", "min": 1, "default": "")"),
                  "c.json:2: a.b: type \"text\" has no member \"min\""},
        ErrorCase{"NoDefault", one(R"("type": "text")"),
                  "c.json:2: a.b: \"default\" is missing or not a string (write \"5\", not 5)"},
        ErrorCase{"NumberAsDefault", one(R"("type": "integer", "default": 5)"),
                  "c.json:2: a.b: \"default\" is missing or not a string (write \"5\", not 5)"},
        ErrorCase{"InvalidDefault", one(R"("type": "integer", "min": 1, "max": 3, "default": "4")"),
                  "c.json:2: a.b: the default \"4\" must be a whole number from 1 to 3"},
        ErrorCase{"NoDescription", withKeys(R"("a.b": {"type": "text", "default": ""})"),
                  "c.json:2: a.b: \"description\" is missing"},
        ErrorCase{"DescriptionOfTwoLines", withKeys(R"("a.b": {"type": "text", "default": "", "description": "a\nb"})"),
                  "c.json:2: a.b: \"description\" must be a single line"},
        ErrorCase{"DescriptionWithAnEscape",
                  withKeys(R"("a.b": {"type": "text", "default": "", "description": "a\u001b[1m"})"),
                  "c.json:2: a.b: \"description\" must be a single line"},
        ErrorCase{"DefaultWithNul", one(R"("type": "text", "default": "a\u0000b")"),
                  "c.json:2: a.b: the default must not contain a NUL"},
        ErrorCase{"DefaultTooLong",
                  one(R"("type": "pattern", "pattern": "x*", "default": ")" + std::string(65537, 'x') + "\""),
                  "c.json:2: a.b: the default must be at most 65536 bytes long"},
        ErrorCase{"InvalidUtf8", "{\"version\": 1,\n\n\"keys\": {\"\xff\": 5}}", "c.json:3: is not UTF-8 text"},
        ErrorCase{"ReadOnlyNotABoolean", one(R"("type": "text", "default": "", "readOnly": "yes")"),
                  "c.json:2: a.b: \"readOnly\" must be true or false"},
        ErrorCase{"VolatileNotABoolean", one(R"("type": "text", "default": "", "volatile": "yes")"),
                  "c.json:2: a.b: \"volatile\" must be true or false"},
        ErrorCase{"RefusedSourcesNotAnArray", one(R"("type": "text", "default": "", "refusedSources": "provisioning")"),
                  "c.json:2: a.b: \"refusedSources\" must be an array such as [\"provisioning\"]"},
        ErrorCase{"RefusedSourcesEmpty", one(R"("type": "text", "default": "", "refusedSources": [])"),
                  "c.json:2: a.b: \"refusedSources\" must be an array such as [\"provisioning\"]"},
        ErrorCase{"RefusedSourceNotAString", one(R"("type": "text", "default": "", "refusedSources": ["a", 5])"),
                  "c.json:2: a.b: each of \"refusedSources\" must be a non-empty string"},
        ErrorCase{"RefusedSourceEmpty", one(R"("type": "text", "default": "", "refusedSources": [""])"),
                  "c.json:2: a.b: each of \"refusedSources\" must be a non-empty string"},
        ErrorCase{"RefusedSourceOfTwoLines", one(R"("type": "text", "default": "", "refusedSources": ["a\nb"])"),
                  "c.json:2: a.b: each of \"refusedSources\" must be a single line"},
        ErrorCase{"DuplicateRefusedSource", one(R"("type": "text", "default": "", "refusedSources": ["a", "b", "a"])"),
                  "c.json:2: a.b: duplicate \"a\" in \"refusedSources\""},
        ErrorCase{"RefusedSourcesOfAReadOnlyKey",
                  one(R"("type": "text", "default": "", "readOnly": true, "refusedSources": ["a"])"),
                  "c.json:2: a.b: \"refusedSources\" is redundant with \"readOnly\""},
        ErrorCase{"StateIsVolatile",
                  withKeys("\"State.b\": " + definition(R"("type": "text", "default": "", "volatile": false)")),
                  "c.json:2: State.b: keys below \"State.\" are volatile"},
        ErrorCase{"SecretDefaultIsHidden", one(R"("type": "secret", "default": "hunter2", "maxLength": 3)"),
                  "c.json:2: a.b: the default must be at most 3 bytes long, not 7"},
        ErrorCase{"UrlDefault", one(R"("type": "url", "default": "x")"),
                  "c.json:2: a.b: the default \"x\" must be a URL such as https://server.example/path, or empty"},
        ErrorCase{"SchemesNotAnArray", one(R"("type": "url", "default": "", "schemes": "https")"),
                  "c.json:2: a.b: \"schemes\" must be an array such as [\"https\"]"},
        ErrorCase{"SchemeInUpperCase", one(R"("type": "url", "default": "", "schemes": ["HTTPS"])"),
                  "c.json:2: a.b: each of \"schemes\" must be a string in lower case"},
        ErrorCase{"MinAboveMax", one(R"("type": "integer", "min": 3, "max": 2, "default": "2")"),
                  "c.json:2: a.b: \"min\" is greater than \"max\""},
        ErrorCase{"LimitNotANumber", one(R"("type": "integer", "min": "3", "default": "2")"),
                  "c.json:2: a.b: \"min\" must be a whole number"},
        ErrorCase{"LengthNegative", one(R"("type": "text", "maxLength": -1, "default": "")"),
                  "c.json:2: a.b: \"maxLength\" must be from 0 to 65536"},
        ErrorCase{"LengthTooLarge", one(R"("type": "text", "maxLength": 65537, "default": "2")"),
                  "c.json:2: a.b: \"maxLength\" must be from 0 to 65536"},
        ErrorCase{"EnumWithoutValues", one(R"("type": "enum", "default": "2")"),
                  "c.json:2: a.b: an enum needs \"values\", a non-empty array of strings"},
        ErrorCase{"EnumOfNumbers", one(R"("type": "enum", "values": [2], "default": "2")"),
                  "c.json:2: a.b: each of \"values\" must be a string"},
        ErrorCase{"DuplicateEnumValue", one(R"("type": "enum", "values": ["2", "2"], "default": "2")"),
                  "c.json:2: a.b: duplicate \"2\" in \"values\""},
        ErrorCase{"PatternMissing", one(R"("type": "pattern", "default": "2")"),
                  "c.json:2: a.b: a pattern needs \"pattern\", a POSIX extended regular expression"},
        ErrorCase{
            "PatternMalformed", one(R"("type": "pattern", "pattern": "[a", "default": "2")"),
            "c.json:2: a.b: \"pattern\" is not a POSIX extended regular expression: Unmatched [, [^, [:, [., or [="},
        ErrorCase{"UnbalancedPattern", one(R"("type": "pattern", "pattern": "a)|(b", "default": "a")"),
                  "c.json:2: a.b: \"pattern\" is not a POSIX extended regular expression: Unmatched ( or \\("},
        ErrorCase{"ExplosivePattern",
                  one(R"("type": "pattern", "pattern": "a+++++++++++++++++++++++++++++++++", "default": "a")"),
                  "c.json:2: a.b: \"pattern\" has more than 500 characters once its repetitions are written out"},
        ErrorCase{
            "KeyWithBlank", withKeys("\"a b\": " + definition(R"("type": "text", "default": "")")),
            "c.json:2: a b: is not a valid key: letters, digits, \"_\" and \"-\" in segments between dots, at most 255 "
            "bytes"},
        ErrorCase{"KeyWithEmptySegment", withKeys("\"a..b\": " + definition(R"("type": "text", "default": "")")),
                  "c.json:2: a..b: is not a valid key: letters, digits, \"_\" and \"-\" in segments between dots, at "
                  "most 255 "
                  "bytes"},
        ErrorCase{
            "PatternOfInvalidKeys", withKeys("\"a.{0-9}.\": " + definition(R"("type": "text", "default": "")")),
            "c.json:2: a.{0-9}.: is not a valid key: letters, digits, \"_\" and \"-\" in segments between dots, at "
            "most 255 bytes"},
        ErrorCase{"PatternOfPermanentState",
                  withKeys("\"State.{0-9}\": " + definition(R"("type": "text", "default": "", "volatile": false)")),
                  "c.json:2: State.{0-9}: keys below \"State.\" are volatile"},
        ErrorCase{"RangeBackwards", withKeys("\"a.{7-0}\": " + definition(R"("type": "text", "default": "")")),
                  "c.json:2: a.{7-0}: \"{7-0}\" is not an index range such as {0-7}"},
        ErrorCase{"RangeOpen", withKeys("\"a.{0-7\": " + definition(R"("type": "text", "default": "")")),
                  "c.json:2: a.{0-7: \"{\" is not closed"},
        ErrorCase{"PatternsOverlap",
                  withKeys("\"a.{0-3}\": " + definition(R"("type": "text", "default": "")") +
                           ",\n\"a.{3-4}\": " + definition(R"("type": "text", "default": "")")),
                  "c.json:3: a.3: duplicate key, first defined in line 2"}),
    [](const auto& row) { return row.param.name; });

TEST(Key, HasPlainSegmentsOnly) {
    EXPECT_TRUE(isKey("State"));
    EXPECT_TRUE(isKey("FunctionKeys.0LockProvisioning"));
    EXPECT_TRUE(isKey(std::string(255, 'a')));
    EXPECT_FALSE(isKey(std::string(256, 'a')));
    EXPECT_TRUE(isKey("a.AZaz09_-"));
    for (const char letter : {'/', ':', '@', '[', '`', '{', '^', ',', '\0', '\x7f'}) {
        EXPECT_FALSE(isKey(std::string("a") + letter)) << letter;
    }
    for (const char* text : {"", ".", "a.", ".a", "a/b", "a#", "a+", "\xc3\xa4", "a b", "a\n"}) {
        EXPECT_FALSE(isKey(text)) << text;
    }
}

TEST(Catalogue, NamesThePatternAndTheLineOfKeysThatAreTooLong) {
    const std::string text = definition(R"("type": "text", "default": "")");
    EXPECT_EQ(
        errorOf(withKeys("\"a\": " + text + ",\n\"X.{0-9999}." + std::string(1024 * 1024, 'y') + "\": " + text)),
        "c.json:3: X.{0-9999}." + std::string(289, 'y') + "...: the pattern expands to keys of more than 255 bytes");
    EXPECT_EQ(
        errorOf(withKeys("\"" + std::string(299, 'y') + "\u00e4z\": " + text)),
        "c.json:2: " + std::string(299, 'y') +
            "...: is not a valid key: letters, digits, \"_\" and \"-\" in segments between dots, at most 255 bytes");
}

TEST(Catalogue, HasAtMostAMillionKeys) {
    std::string patterns;
    for (int index = 0; index < 100; ++index) {
        patterns +=
            "\"a" + std::to_string(index) + ".{0-9999}\": " + definition(R"("type": "text", "default": "")") + ",\n";
    }
    EXPECT_EQ(errorOf(withKeys(patterns + "\"b\": " + definition(R"("type": "text", "default": "")"))),
              "c.json:102: b: the catalogue has more than 1000000 keys");
}

TEST(Catalogue, MissingFileIsNamedInTheError) {
    const TemporaryFolder folder;
    try {
        Catalogue::load(folder / "none.json");
        FAIL();
    } catch (const CatalogueException& error) {
        EXPECT_EQ(error.what(), folder / "none.json" + std::string(": cannot be opened: No such file or directory"));
    }
    EXPECT_THROW(Catalogue::load(folder / ""), CatalogueException);
}

TEST(Catalogue, MayHaveEightMebibytes) {
    const TemporaryFolder folder;
    std::string text = withKeys("\"a.b\": " + definition(R"("type": "text", "default": "x")"));
    text += std::string(8 * 1024 * 1024 - text.size(), ' ');
    std::ofstream(folder / "c.json") << text;
    EXPECT_EQ(Catalogue::load(folder / "c.json").keys().size(), 1U);
    std::ofstream(folder / "c.json") << text << ' ';
    EXPECT_THROW(Catalogue::load(folder / "c.json"), CatalogueException);
}

TEST(Catalogue, DefaultMayHave64KiB) {
    const auto errorOfDefault = [](std::size_t bytes) {
        return errorOf(
            withKeys("\"k\": " + definition(R"("type": "text", "default": ")" + std::string(bytes, 'x') + "\"")));
    };
    EXPECT_EQ(errorOfDefault(65536), "no error");
    EXPECT_EQ(errorOfDefault(65537), "c.json:2: k: the default must be at most 65536 bytes long");
}

TEST(Catalogue, LoadsAFile) {
    const TemporaryFolder folder;
    std::ofstream(folder / "c.json") << withKeys("\"a.b\": " + definition(R"("type": "text", "default": "x")"));
    EXPECT_EQ(Catalogue::load(folder / "c.json").keys().size(), 1U);
}

TEST(ShippedCatalogue, DoesNotRestrictValuesThatServicesCheck) {
    const Catalogue catalogue = Catalogue::load(SHIPPED_CATALOGUE);
    EXPECT_GT(catalogue.keys().size(), 500U);
    std::vector<std::string> free{"FirmwareManagment.AutomaticCheckForUpdates",
                                  "State.FirmwareUpdate.Filename",
                                  "State.FirmwareUpdate.TriggerAuto",
                                  "State.FirmwareUpdate.UpdateSystem",
                                  "State.FirmwareUpdate.Verify",
                                  "State.LocalDirectoryUpdate.FileName",
                                  "State.LocalDirectoryUpdate.Verify",
                                  "State.Provisioning",
                                  "State.Provisioning.HttpErrorCode",
                                  "State.Provisioning.LockUI",
                                  "State.Provisioning.OnBootUp",
                                  "State.Security.Certificates.Accept",
                                  "State.Security.Certificates.Invalid",
                                  "State.Security.Certificates.Pending",
                                  "State.Security.Certificates.UpdateCABundle",
                                  "State.System.QA.AutomaticReboot.IsBusy",
                                  "State.System.QA.AutomaticReboot.IsBusyQuery",
                                  "System.Debug.LevelMask.ZAV",
                                  "System.General.DeviceID",
                                  "System.General.SoftwareVersion",
                                  "System.Provision.CustomVersion",
                                  "System.Provision.FactoryAuthPassword",
                                  "System.Provision.FactoryAuthUsername",
                                  "System.Provision.Period",
                                  "System.Provision.ProvisioningServer",
                                  "System.Provision.ProvisioningVersion",
                                  "System.Provision.SettingsVersion",
                                  "Telephony.PhoneSystem.Type"};
    for (int index = 0; index < 8; ++index) {
        const std::string number = std::to_string(index);
        free.push_back("FunctionKeys." + number + ".LockProvisioning");
        free.push_back("FunctionKeys." + number + "LockProvisioning");
        free.push_back("PhoneUI.Keys.FunctionKeys." + number + ".LockProvisioning");
    }
    for (const std::string& key : free) {
        const CatalogueKey* const entry = find(catalogue, key);
        ASSERT_NE(entry, nullptr) << key;
        EXPECT_FALSE(entry->definition->readOnly) << key;
        for (const char* value : {"", "0", "1", "-1", "599", "abc", "true", "V001.000.000", "request-check-sync"}) {
            EXPECT_EQ(entry->definition->rule(value), "") << key;
        }
    }
}

TEST(ShippedCatalogue, ChecksMacAddressesButNotThePeriod) {
    const Catalogue catalogue = Catalogue::load(SHIPPED_CATALOGUE);
    const ValueRule& address = find(catalogue, "NET.MAC.Address")->definition->rule;
    for (const char* value : {"", "00:11:22:aa:BB:cc", "00-11-22-aa-BB-cc", "001122aaBBcc"}) {
        EXPECT_EQ(address(value), "") << value;
    }
    for (const char* value : {"0", "abc", "00:11:22:33:44", "00:11:22:33:44:55 "}) EXPECT_NE(address(value), "");
    // The daemon handles these itself and logs them, so the catalogue must accept them.
    const ValueRule& period = find(catalogue, "System.Provision.Period")->definition->rule;
    for (const char* value : {"", "abc", "0", "-1", "599", " 600", "600s"}) EXPECT_EQ(period(value), "") << value;
}

TEST(ShippedCatalogue, RefusesPassRequestsOfProvisioningFiles) {
    const Catalogue catalogue = Catalogue::load(SHIPPED_CATALOGUE);
    std::vector<std::string> refused;
    for (const CatalogueKey& entry : catalogue.keys()) {
        if (entry.definition->refuses("provisioning")) refused.emplace_back(entry.key);
        EXPECT_FALSE(entry.definition->refuses("prov-client")) << entry.key;
        EXPECT_FALSE(entry.definition->refuses("")) << entry.key;
    }
    EXPECT_THAT(refused, ElementsAre("State.FirmwareUpdate.TriggerAuto", "State.Provisioning"));
}

TEST(ShippedCatalogue, KeepsPasswordsSecret) {
    const Catalogue catalogue = Catalogue::load(SHIPPED_CATALOGUE);
    for (const CatalogueKey& entry : catalogue.keys()) {
        const bool named =
            entry.key.find("Password") != std::string::npos || entry.key.find("PIN") != std::string::npos;
        EXPECT_EQ(entry.definition->isSecret(), named) << entry.key;
    }
}

TEST(ShippedCatalogue, HasTheNetworkAndTheFunctionKeys) {
    const Catalogue catalogue = Catalogue::load(SHIPPED_CATALOGUE);
    for (const char* key :
         {"NET.General.DeviceNameInNetwork", "NET.LAN.IP.DHCP.Enabled", "NET.IP.AddressType", "NET.IP.IPv4.Address",
          "NET.IP.IPv4.SubnetMask", "NET.IP.IPv4.StandardGateway", "NET.IP.IPv4.PreferredDNSServer",
          "NET.IP.IPv4.AlternateDNSServer", "NET.VLAN.Tagging", "NET.VLAN.LAN.Identifier", "NET.VLAN.LAN.Priority",
          "NET.VLAN.PC.Identifier", "NET.VLAN.PC.Priority", "NET.IP.IPv4.DHCP.Options.VendorEncapsulated",
          "NET.IP.IPv4.DHCP.Options.NTP", "NET.SwitchSettings.EnablePortMirroring", "PhoneUI.Keys.FunctionKeys.0.Label",
          "PhoneUI.Keys.FunctionKeys.7.Value"}) {
        const CatalogueKey* const entry = find(catalogue, key);
        ASSERT_NE(entry, nullptr) << key;
        EXPECT_FALSE(entry->definition->readOnly) << key;
    }
    EXPECT_EQ(find(catalogue, "System.General.DeviceID")->definition->defaultValue, "kd4v");
    EXPECT_EQ(find(catalogue, "State.Provisioning.OnBootUp")->definition->defaultValue, "");
    EXPECT_NE(find(catalogue, "NET.VLAN.LAN.Identifier")->definition->rule("4096"), "");
    EXPECT_EQ(find(catalogue, "NET.IP.IPv4.Address")->definition->rule("192.168.1.20"), "");
    EXPECT_NE(find(catalogue, "NET.IP.IPv4.Address")->definition->rule("here"), "");
}

INSTANTIATE_TEST_SUITE_P(
    Values, CatalogueError,
    testing::Values(
        ErrorCase{"DescriptionNotAString", withKeys(R"("a.b": {"type": "text", "default": "", "description": 5})"),
                  "c.json:2: a.b: \"description\" is missing"},
        ErrorCase{"DescriptionEmpty", withKeys(R"("a.b": {"type": "text", "default": "", "description": ""})"),
                  "c.json:2: a.b: \"description\" is missing"},
        ErrorCase{"TypeNotAString", one(R"("type": 5, "default": "")"), "c.json:2: a.b: \"type\" is missing"},
        ErrorCase{"FirstRefusedSourceNotAString", one(R"("type": "text", "default": "", "refusedSources": [5])"),
                  "c.json:2: a.b: each of \"refusedSources\" must be a non-empty string"},
        ErrorCase{"EnumValuesNotAnArray", one(R"("type": "enum", "values": "2", "default": "2")"),
                  "c.json:2: a.b: an enum needs \"values\", a non-empty array of strings"},
        ErrorCase{"EnumValuesEmpty", one(R"("type": "enum", "values": [], "default": "2")"),
                  "c.json:2: a.b: an enum needs \"values\", a non-empty array of strings"},
        ErrorCase{"PatternNotAString", one(R"("type": "pattern", "pattern": 5, "default": "2")"),
                  "c.json:2: a.b: a pattern needs \"pattern\", a POSIX extended regular expression"},
        ErrorCase{"PatternEmpty", one(R"("type": "pattern", "pattern": "", "default": "2")"),
                  "c.json:2: a.b: a pattern needs \"pattern\", a POSIX extended regular expression"},
        ErrorCase{"SchemesEmpty", one(R"("type": "url", "default": "", "schemes": [])"),
                  "c.json:2: a.b: \"schemes\" must be an array such as [\"https\"]"},
        ErrorCase{"SchemeNotAString", one(R"("type": "url", "default": "", "schemes": [5])"),
                  "c.json:2: a.b: each of \"schemes\" must be a string in lower case"},
        ErrorCase{"SchemeEmpty", one(R"("type": "url", "default": "", "schemes": [""])"),
                  "c.json:2: a.b: each of \"schemes\" must be a string in lower case"},
        ErrorCase{"SecondSchemeInUpperCase", one(R"("type": "url", "default": "", "schemes": ["https", "Http"])"),
                  "c.json:2: a.b: each of \"schemes\" must be a string in lower case"},
        ErrorCase{"VolatileState",
                  withKeys("\"State.b\": " + definition(R"("type": "text", "default": "", "volatile": true)")),
                  "no error"}),
    [](const auto& row) { return row.param.name; });

constexpr char digitsAndSigns[] = R"("type": "url", "default": "", "schemes": ["h2", "git+ssh"])";
INSTANTIATE_TEST_SUITE_P(
    UnusualSchemes, Rule,
    testing::Values(RuleCase{digitsAndSigns, "h2://server.example/", ""},
                    RuleCase{digitsAndSigns, "GIT+SSH://server.example/", ""},
                    RuleCase{digitsAndSigns, "ssh://server.example/", "must begin with h2:// or git+ssh://"},
                    RuleCase{R"("type": "pattern", "pattern": "b", "default": "b")", "ab", "must match the pattern b"},
                    RuleCase{R"("type": "pattern", "pattern": "b", "default": "b")", "z", "must match the pattern b"},
                    RuleCase{R"("type": "pattern", "pattern": "a", "default": "a")", "ab", "must match the pattern a"},
                    RuleCase{R"("type": "secret", "pattern": "a*", "maxLength": 2, "default": "")", "aaa",
                             "must be at most 2 bytes long"}));

}  // namespace
}  // namespace propertyservice
