// Log lines of the property service and their levels.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeStore.h"
#include "fakes/LogCapture.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"
#include "service/PropertyService.h"

namespace propertyservice {
namespace {

using fakes::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string source = "services/property-service/service/PropertyService";
const std::string tableSource = "services/property-service/service/PropertyTable";

const char catalogueText[] = R"({"version": 1, "keys": {
    "Net.MAC": {"type": "mac", "default": "", "description": "d"},
    "Net.Port": {"type": "integer", "min": 1, "max": 9, "default": "5", "description": "d"},
    "Net.Serial": {"type": "text", "default": "42", "readOnly": true, "description": "d"},
    "Net.PIN": {"type": "secret", "pattern": "[0-9]*", "default": "", "description": "d"},
    "Net.Trigger": {"type": "text", "refusedSources": ["file"], "default": "", "description": "d"},
    "Net.Names.{0-19}": {"type": "enum", "values": ["a"], "default": "a", "description": "d"}
}})";

class RefusalLog : public testing::Test {
 protected:
    std::vector<ipc::OutgoingMessage> handle(const std::vector<ipc::ServiceRequest>& requests) {
        return service_.handle(requests);
    }
    static ipc::ServiceRequest set(const std::string& key, const std::string& value, const std::string& from = "me") {
        std::string payload = "{\"param\":";
        propertyprotocol::appendString(payload, key);
        payload += ",\"value\":";
        propertyprotocol::appendString(payload, value);
        payload += ",\"source\":";
        propertyprotocol::appendString(payload, from);
        return {propertyprotocol::setTopic, payload + "}", "me/reply", "", 0};
    }
    static ipc::ServiceRequest import(const std::string& properties, const std::string& apply = "true") {
        return {propertyprotocol::importTopic,
                "{\"source\":\"me\",\"apply\":" + apply + ",\"properties\":[" + properties + "]}", "me/reply", "", 0};
    }
    static LogLine warning(const std::string& text) { return fakes::warning(source, text); }

    const Catalogue catalogue_ = Catalogue::parse(catalogueText, "c.json");
    FakeStore store_;
    PropertyService service_{catalogue_, store_};
    fakes::LogCapture log_;
};

TEST_F(RefusalLog, NamesKeyValueSourceAndReason) {
    handle({set("Net.Port", "abc"), set("Net.Serial", "7"), set("Net.Trigger", "go", "file"), set("Net.MAC", "", "x"),
            set("Net.Port", "")});
    EXPECT_THAT(log_.lines(),
                ElementsAre(warning("Refused Net.Port = \"abc\" from \"me\": must be a whole number from 1 to 9"),
                            warning("Refused Net.Serial = \"7\" from \"me\": may not be written by a client"),
                            warning("Refused Net.Trigger = \"go\" from \"file\": "
                                    "may not be written by the source \"file\""),
                            warning("Refused Net.Port = \"\" from \"me\": must be a whole number from 1 to 9")));
}

TEST_F(RefusalLog, OmitsAcceptedValuesAndUnknownKeys) {
    handle({set("Net.Port", "9"), set("No.Such", "abc"), set("Net.MAC", "00:11:22:33:44:55")});
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(RefusalLog, HidesSecrets) {
    handle({set("Net.PIN", "not digits")});
    EXPECT_THAT(log_.lines(), ElementsAre(warning("Refused Net.PIN = *** from \"me\": must match the pattern [0-9]*")));
}

TEST_F(RefusalLog, ShowsEightyCharactersAndEscapesControls) {
    const std::string reason = ": must be a whole number from 1 to 9";
    const std::string umlauts = [] {
        std::string text;
        for (int count = 0; count < 80; ++count) text += "\xc3\xa4";
        return text;
    }();
    handle({set("Net.Port", umlauts), set("Net.Port", umlauts + "\xe2\x82\xac"),
            set("Net.Port", std::string("a\nb\x1b[2J\x7f\xc2\x9b") + "2J\xc2\xa0"),
            set("Net.Port", "x", umlauts + "y")});
    EXPECT_THAT(log_.lines(),
                ElementsAre(warning("Refused Net.Port = \"" + umlauts + "\" from \"me\"" + reason),
                            warning("Refused Net.Port = \"" + umlauts + "...\" from \"me\"" + reason),
                            warning("Refused Net.Port = \"a\\nb\\x1b[2J\\x7f\\u009b2J\xc2\xa0\" from \"me\"" + reason),
                            warning("Refused Net.Port = \"x\" from \"" + umlauts + "...\"" + reason)));
}

TEST(Excerpt, IsCutBetweenCharacters) {
    EXPECT_EQ(excerpt("", 3), "");
    EXPECT_EQ(excerpt("abc", 3), "abc");
    EXPECT_EQ(excerpt("abcd", 3), "abc...");
    EXPECT_EQ(excerpt("\xf0\x9d\x84\x9e\xf0\x9d\x84\x9e", 1), "\xf0\x9d\x84\x9e...");
    EXPECT_EQ(excerpt("\xc2\x80\xc2\x9f\xc2\xa0", 3), "\\u0080\\u009f\xc2\xa0");
    EXPECT_EQ(excerpt("a", 0), "...");
}

TEST_F(RefusalLog, HasTheFirstTenRefusalsOfAnImport) {
    std::string properties;
    for (int index = 0; index < 20; ++index) {
        properties += (index == 0 ? "" : ",") + std::string(R"({"param":"Net.Names.)") + std::to_string(index) +
                      R"(","value":"b"})";
    }
    handle({import(properties, "false")});
    EXPECT_THAT(log_.lines(), IsEmpty()) << "a check without apply must not be logged";
    handle({import(properties)});
    ASSERT_THAT(log_.lines(), SizeIs(10));
    EXPECT_EQ(log_.lines()[9], warning("Refused Net.Names.9 = \"b\" from \"me\": must be one of \"a\""));
    log_.forget();
    handle({import(R"({"param":"No.Such","value":"b"},{"param":"Net.Serial","value":null})")});
    EXPECT_THAT(log_.lines(), IsEmpty()) << "an unknown key or a reset has no value to log";
}

TEST_F(RefusalLog, HasEachRefusalOnceWhenTheStoreFails) {
    store_.full = true;
    ipc::ServiceRequest wrongTopic = set("Net.Port", "1");
    wrongTopic.responseTopic = "prop-service/x";
    const std::vector<ipc::ServiceRequest> requests{set("Net.Port", "abc"), wrongTopic, set("Net.MAC", "001122334455")};
    const std::vector<LogLine> expected{
        warning("Refused Net.Port = \"abc\" from \"me\": must be a whole number from 1 to 9"),
        warning("Refused a request on prop-service/set: its response topic is prop-service/x")};
    handle(requests);
    EXPECT_THAT(log_.lines(), ElementsAre(expected[0], expected[1], fakes::error(source, "disk full")));
    log_.forget();
    handle(requests);
    EXPECT_THAT(log_.lines(), ElementsAre(expected[0], expected[1])) << "a full disk must be logged once";
    log_.forget();
    store_.full = false;
    handle(requests);
    EXPECT_THAT(log_.lines(),
                ElementsAre(expected[0], expected[1], fakes::info(source, "The store is writable again")));
    log_.forget();
    handle({set("Net.Port", "3")});
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(RefusalLog, HasAFailedRebuildOnce) {
    store_.damaged = true;
    store_.full = true;
    handle({set("Net.Port", "3")});
    handle({set("Net.Port", "4")});
    EXPECT_THAT(log_.lines(), ElementsAre(fakes::error(source, "disk full")));
}

TEST_F(RefusalLog, HasUnusedStoredValues) {
    FakeStore old;
    const std::string tooLong(65537, 'a');
    old.values = {{"Net.Names.0", tooLong}, {"Net.Trigger", std::string("a\0b", 3)},
                  {"Net.MAC", "\xff"},      {"Net.Port", "10"},
                  {"Net.PIN", "hidden"},    {"Gone.Key", "x"},
                  {"State.Old", "x"}};
    const PropertyService service(catalogue_, old);
    const auto unused = [](const std::string& key, const std::string& reason) {
        return fakes::warning(tableSource, "The stored value of " + key + " " + reason + "; the default is used");
    };
    EXPECT_THAT(log_.lines(),
                ElementsAre(unused("Net.MAC", "is not UTF-8 text"), unused("Net.Names.0", "is too long"),
                            unused("Net.PIN", "must match the pattern [0-9]*"),
                            unused("Net.Port", "must be a whole number from 1 to 9"),
                            unused("Net.Trigger", "is not UTF-8 text"),
                            fakes::info(tableSource, "Kept stored values whose keys are not in the catalogue: 2")));
}

}  // namespace
}  // namespace propertyservice
