#include "service/PropertyService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include <map>

#include "FakeStore.h"
#include "fakes/LogCapture.h"
#include "propertyprotocol/Topics.h"
#include "service/Codec.h"

namespace propertyservice {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const char catalogueText[] = R"({"version": 1, "keys": {
    "System.Name": {"type": "text", "default": "phone", "description": "d"},
    "System.Port": {"type": "integer", "min": 1, "max": 9, "default": "5", "description": "d"},
    "System.Serial": {"type": "text", "default": "42", "readOnly": true, "description": "d"},
    "State.Provisioning": {"type": "text", "default": "", "description": "d"},
    "NET.MAC.Address": {"type": "text", "default": "", "description": "d"},
    "ZAzaZ.09": {"type": "text", "default": "", "description": "d"},
    "System.Password": {"type": "secret", "maxLength": 8, "default": "start", "description": "s"},
    "System.Uptime": {"type": "integer", "default": "0", "volatile": true, "description": "d"},
    "System.Trigger": {"type": "enum", "values": ["", "go"], "refusedSources": ["file", "web"], "default": "", "description": "d"},
    "Keys.{0-2}.Label": {"type": "text", "default": "-", "description": "d"}
}})";

ipc::ServiceRequest request(const std::string& topic, const std::string& payload) {
    return {topic, payload, "me/reply", "c1", 0};
}
ipc::ServiceRequest get(const std::string& key) {
    return request(propertyprotocol::getTopic, "{\"param\":\"" + key + "\"}");
}
ipc::ServiceRequest set(const std::string& key, const std::string& value) {
    return request(propertyprotocol::setTopic,
                   "{\"param\":\"" + key + "\",\"value\":\"" + value + "\",\"source\":\"t\"}");
}
ipc::ServiceRequest list(const std::string& prefix, const std::string& after = "") {
    return request(propertyprotocol::listTopic, "{\"prefix\":\"" + prefix + "\",\"after\":\"" + after + "\"}");
}

std::string answer(const std::string& key, const std::string& value) {
    return "me/reply {\"param\":\"" + key + "\",\"value\":\"" + value + "\"}";
}
std::string change(const std::string& topic, const std::string& key, const std::string& value) {
    return topic + " {\"param\":\"" + key + "\",\"value\":\"" + value + "\",\"source\":\"t\"}";
}
std::string error(const std::string& key, const std::string& code, const std::string& reason) {
    return "me/reply {\"param\":\"" + key + "\",\"error\":\"" + code + "\",\"reason\":\"" + reason + "\"}";
}
const char refused[] = "the store refused the write; the old value stands";

class Service : public testing::Test {
 protected:
    std::vector<std::string> handle(const std::vector<ipc::ServiceRequest>& requests) {
        std::vector<std::string> messages;
        for (const ipc::OutgoingMessage& message : service().handle(requests)) {
            messages.push_back(message.topic + " " + message.payload);
        }
        return messages;
    }

    PropertyService& service() {
        if (!service_) service_ = std::make_unique<PropertyService>(catalogue, store);
        return *service_;
    }

    void restart() { service_.reset(); }

    const Catalogue catalogue = Catalogue::parse(catalogueText, "c.json");
    FakeStore store;

 private:
    std::unique_ptr<PropertyService> service_;
};

TEST_F(Service, AnswersWithTheRequestsCorrelationDataAndQos) {
    ipc::ServiceRequest asked = get("System.Name");
    asked.qualityOfService = 1;
    asked.correlationData = std::string("\0\xff", 2);
    const std::vector<ipc::OutgoingMessage> messages = service().handle({asked});
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].correlationData, asked.correlationData);
    EXPECT_EQ(messages[0].qualityOfService, 1);
    EXPECT_EQ(messages[0].payload, R"({"param":"System.Name","value":"phone"})");
}

TEST_F(Service, SetIsAnsweredStoredAndPublishedWithQos1) {
    const std::vector<ipc::OutgoingMessage> messages = service().handle({set("System.Name", "x")});
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].topic, "prop-service-system/System.Name");
    EXPECT_EQ(messages[0].payload, R"({"param":"System.Name","value":"x","source":"t"})");
    EXPECT_EQ(messages[0].qualityOfService, 1);
    EXPECT_EQ(messages[0].correlationData, "");
    EXPECT_EQ(messages[1].topic, "me/reply") << "the answer must follow its change";
    EXPECT_EQ(messages[1].payload, R"({"param":"System.Name","value":"x"})");
    EXPECT_EQ(messages[1].correlationData, "c1");
    EXPECT_EQ(store.values["System.Name"], "x");
}

TEST_F(Service, ChangeTopicsNameTheGroupInLowerCase) {
    EXPECT_THAT(
        handle({set("State.Provisioning", "request"), set("NET.MAC.Address", "00"), set("Keys.2.Label", "l")}),
        ElementsAre(change("prop-service-state/State.Provisioning", "State.Provisioning", "request"),
                    answer("State.Provisioning", "request"),
                    change("prop-service-net/NET.MAC.Address", "NET.MAC.Address", "00"),
                    answer("NET.MAC.Address", "00"), change("prop-service-keys/Keys.2.Label", "Keys.2.Label", "l"),
                    answer("Keys.2.Label", "l")));
}

TEST_F(Service, ChangeTopicsConvertEveryLetterToLowerCase) {
    EXPECT_THAT(handle({set("ZAzaZ.09", "x")}),
                ElementsAre(change("prop-service-zazaz/ZAzaZ.09", "ZAzaZ.09", "x"), answer("ZAzaZ.09", "x")));
}

TEST_F(Service, SetToSameValueIsPublishedButNotStored) {
    handle({set("System.Name", "x")});
    const int before = store.transactions;
    EXPECT_THAT(handle({set("System.Name", "x")}),
                ElementsAre(change("prop-service-system/System.Name", "System.Name", "x"), answer("System.Name", "x")));
    EXPECT_EQ(store.transactions, before);
}

TEST_F(Service, SetToDefaultIsStored) {
    handle({set("System.Name", "phone")});
    EXPECT_EQ(store.values["System.Name"], "phone");
}

TEST_F(Service, MissingSourceIsEmpty) {
    EXPECT_THAT(handle({request(propertyprotocol::setTopic, R"({"param":"System.Name","value":"x"})")}),
                ElementsAre("prop-service-system/System.Name "
                            "{\"param\":\"System.Name\",\"value\":\"x\",\"source\":\"\"}",
                            answer("System.Name", "x")));
}

TEST_F(Service, ErrorsHaveCodeAndReason) {
    EXPECT_THAT(handle({get("No.Such"), set("No.Such", "1"), get("System.#"), set("System.Port", "10"),
                        set("System.Serial", "1"), request(propertyprotocol::getTopic, "x"),
                        request(propertyprotocol::setTopic, R"({"param":"System.Name"})"),
                        request(propertyprotocol::listTopic, "{}")}),
                ElementsAre(error("No.Such", "not-found", "the catalogue has no such key"),
                            error("No.Such", "not-found", "the catalogue has no such key"),
                            error("System.#", "not-found", "the catalogue has no such key"),
                            error("System.Port", "invalid-value", "must be a whole number from 1 to 9"),
                            error("System.Serial", "read-only", "may not be written by a client"),
                            error("", "bad-request", "the payload is not JSON in UTF-8"),
                            error("System.Name", "bad-request", "\\\"value\\\" is missing"),
                            error("", "bad-request", "\\\"prefix\\\" is missing")));
    EXPECT_EQ(store.transactions, 0);
    EXPECT_THAT(handle({get("System.Port")}), ElementsAre(answer("System.Port", "5")));
}

TEST_F(Service, RefusedSourceMayNotWrite) {
    const auto from = [](const std::string& source, const std::string& value) {
        return request(propertyprotocol::setTopic,
                       R"({"param":"System.Trigger","value":")" + value + R"(","source":")" + source + "\"}");
    };
    const std::string refusal = error("System.Trigger", "read-only", R"(may not be written by the source \"file\")");
    EXPECT_THAT(handle({from("file", "go")}), ElementsAre(refusal));
    EXPECT_THAT(handle({from("file", "nonsense")}), ElementsAre(refusal));
    EXPECT_THAT(handle({from("web", "go")}), ElementsAre(HasSubstr("\"read-only\"")));
    EXPECT_THAT(handle({get("System.Trigger")}), ElementsAre(answer("System.Trigger", "")));
    for (const char* source : {"me", "", "File"}) {
        EXPECT_THAT(handle({from(source, "go")}), ElementsAre(HasSubstr("\"go\""), answer("System.Trigger", "go")));
    }
    const auto import = [](const std::string& source) {
        return request(propertyprotocol::importTopic, R"({"properties":[{"param":"System.Name","value":"x"},)"
                                                      R"({"param":"System.Trigger","value":null}],"apply":true)" +
                                                          source + "}");
    };
    EXPECT_THAT(handle({import(R"(,"source":"file")")}),
                ElementsAre(AllOf(HasSubstr("\"errors\":"), HasSubstr("System.Trigger"), HasSubstr("read-only"))));
    EXPECT_THAT(handle({get("System.Name")}), ElementsAre(answer("System.Name", "phone"))) << "all or nothing";
    EXPECT_THAT(handle({import("")}), Contains(HasSubstr("\"accepted\":2")));
}

TEST_F(Service, AcceptsValuesUpTo64KiB) {
    const std::string most(maxValueBytes, 'x');
    EXPECT_EQ(handle({set("System.Name", most)}).size(), 2U);
    EXPECT_THAT(handle({set("System.Name", most + "x")}),
                ElementsAre(error("System.Name", "invalid-value", "must be at most 65536 bytes long")));
    EXPECT_THAT(handle({get("System.Name")}), ElementsAre(answer("System.Name", most)));
}

TEST_F(Service, ExecutesRequestsWithoutResponseTopic) {
    ipc::ServiceRequest silent = set("System.Name", "x");
    silent.responseTopic.clear();
    EXPECT_THAT(handle({silent}), ElementsAre(change("prop-service-system/System.Name", "System.Name", "x")));
    ipc::ServiceRequest unread = get("System.Name");
    unread.responseTopic.clear();
    EXPECT_THAT(handle({unread}), IsEmpty());
}

TEST_F(Service, RefusesReservedAndWildcardResponseTopics) {
    for (const std::string topic : {"prop-service", "prop-service/set", "prop-service/status",
                                    "prop-service-state/State.Provisioning", "a/#", "+", "a/+/b"}) {
        ipc::ServiceRequest asked = set("System.Name", "x");
        asked.responseTopic = topic;
        EXPECT_THAT(handle({asked}), IsEmpty()) << topic;
    }
    ipc::ServiceRequest withNul = set("System.Name", "x");
    withNul.responseTopic = std::string("a\0b", 3);
    EXPECT_THAT(handle({withNul}), IsEmpty());
    EXPECT_THAT(handle({get("System.Name")}), ElementsAre(answer("System.Name", "phone")));
    ipc::ServiceRequest asked = get("System.Name");
    asked.responseTopic = "prop-services/x";
    EXPECT_EQ(handle({asked}).size(), 1U);
}

TEST_F(Service, BatchIsOneTransactionInOrder) {
    EXPECT_THAT(handle({set("System.Name", "a"), get("System.Name"), set("System.Name", "b"), get("System.Name")}),
                ElementsAre(change("prop-service-system/System.Name", "System.Name", "a"), answer("System.Name", "a"),
                            answer("System.Name", "a"), change("prop-service-system/System.Name", "System.Name", "b"),
                            answer("System.Name", "b"), answer("System.Name", "b")));
    EXPECT_EQ(store.transactions, 1);
    EXPECT_EQ(store.values["System.Name"], "b");
}

TEST_F(Service, FullStoreKeepsTheOldValueAndRecovers) {
    handle({set("System.Name", "old")});
    store.full = true;
    EXPECT_THAT(handle({set("System.Name", "new"), get("System.Name"), set("State.Provisioning", "x")}),
                ElementsAre(error("System.Name", "storage", refused), answer("System.Name", "old"),
                            change("prop-service-state/State.Provisioning", "State.Provisioning", "x"),
                            answer("State.Provisioning", "x")));
    store.full = false;
    EXPECT_THAT(
        handle({set("System.Name", "new")}),
        ElementsAre(change("prop-service-system/System.Name", "System.Name", "new"), answer("System.Name", "new")));
    EXPECT_EQ(store.values["System.Name"], "new");
}

TEST_F(Service, FailedWriteInABatchAffectsNoOther) {
    store.failingKey = "System.Port";
    ipc::ServiceRequest silent = set("System.Port", "3");
    silent.responseTopic.clear();
    EXPECT_THAT(handle({set("System.Name", "a"), set("System.Port", "2"), silent, set("Keys.0.Label", "b"),
                        get("System.Port")}),
                ElementsAre(change("prop-service-system/System.Name", "System.Name", "a"), answer("System.Name", "a"),
                            error("System.Port", "storage", refused),
                            change("prop-service-keys/Keys.0.Label", "Keys.0.Label", "b"), answer("Keys.0.Label", "b"),
                            answer("System.Port", "5")));
    EXPECT_EQ(store.values["Keys.0.Label"], "b");
    EXPECT_EQ(store.values.count("System.Port"), 0U);
    store.failingKey.clear();
    handle({set("System.Port", "5")});
    EXPECT_EQ(store.values["System.Port"], "5") << "the value of the failed write must be stored";
}

TEST_F(Service, StateIsNeverStoredAndStartsAtDefault) {
    handle({set("State.Provisioning", "success")});
    EXPECT_EQ(store.transactions, 0);
    EXPECT_THAT(handle({get("State.Provisioning")}), ElementsAre(answer("State.Provisioning", "success")));
    store.values["State.Provisioning"] = "from an old store";
    restart();
    EXPECT_THAT(handle({get("State.Provisioning")}), ElementsAre(answer("State.Provisioning", "")));
}

TEST_F(Service, StartsWithTheStoredValues) {
    store.values["System.Name"] = "mine";
    store.values["System.Port"] = "100";  // no longer allowed
    store.values["Gone.Key"] = "kept";    // no longer known
    EXPECT_THAT(handle({get("System.Name"), get("System.Port"), get("Gone.Key")}),
                ElementsAre(answer("System.Name", "mine"), answer("System.Port", "5"),
                            error("Gone.Key", "not-found", "the catalogue has no such key")));
    EXPECT_EQ(store.values["Gone.Key"], "kept");
    handle({set("System.Port", "5")});
    EXPECT_EQ(store.values["System.Port"], "5") << "the default, set by hand, must replace what is no longer allowed";
}

TEST_F(Service, ResetDeletesAStoredValueThatIsNoLongerAllowed) {
    store.values["System.Port"] = "100";
    handle({request(propertyprotocol::importTopic,
                    R"({"properties":[{"param":"System.Port","value":null}],"apply":true})")});
    EXPECT_EQ(store.values.count("System.Port"), 0U);
}

TEST_F(Service, ListsByPrefixSorted) {
    EXPECT_THAT(
        handle({list("Keys.")}),
        ElementsAre("me/reply {\"properties\":[{\"param\":\"Keys.0.Label\",\"value\":\"-\"},"
                    "{\"param\":\"Keys.1.Label\",\"value\":\"-\"},{\"param\":\"Keys.2.Label\",\"value\":\"-\"}]}"));
    EXPECT_THAT(handle({list("Keys.", "Keys.1.Label")}),
                ElementsAre("me/reply {\"properties\":[{\"param\":\"Keys.2.Label\",\"value\":\"-\"}]}"));
    EXPECT_THAT(handle({list("Keys.", "Keys.0.zzz")}), ElementsAre(HasSubstr("[{\"param\":\"Keys.1.Label\"")));
    for (const char* after : {"Keys.2.Label", "Z"}) {
        EXPECT_THAT(handle({list("Keys.", after)}), ElementsAre("me/reply {\"properties\":[]}"));
    }
    EXPECT_THAT(handle({list("nothing")}), ElementsAre("me/reply {\"properties\":[]}"));
    EXPECT_THAT(handle({list("", "A")}), ElementsAre(HasSubstr("[{\"param\":\"Keys.0.Label\"")));
}

TEST_F(Service, DamagedStoreIsRebuiltFromMemory) {
    handle({set("System.Name", "kept"), set("System.Port", "7"), set("State.Provisioning", "x")});
    handle({request(propertyprotocol::importTopic,
                    R"({"properties":[{"param":"System.Port","value":null}],"apply":true})")});
    store.values = {{"System.Port", "of an old backup"}, {"Gone.Key", "kept"}};
    store.damaged = true;
    EXPECT_THAT(
        handle({set("System.Serial", "1"), set("Keys.1.Label", "new")}),
        ElementsAre(error("System.Serial", "read-only", "may not be written by a client"),
                    change("prop-service-keys/Keys.1.Label", "Keys.1.Label", "new"), answer("Keys.1.Label", "new")));
    EXPECT_EQ(store.values, (std::map<std::string, std::string>{
                                {"System.Name", "kept"}, {"Keys.1.Label", "new"}, {"Gone.Key", "kept"}}));
    handle({set("Keys.1.Label", "later")});
    EXPECT_EQ(store.rebuilds, 1);
}

TEST_F(Service, FailedRebuildIsRetriedBeforeTheNextWrite) {
    handle({set("System.Name", "kept")});
    store.values.clear();
    store.damaged = true;
    store.full = true;
    handle({set("System.Port", "7")});
    EXPECT_TRUE(store.values.empty());
    store.full = false;
    EXPECT_THAT(
        handle({set("Keys.1.Label", "new")}),
        ElementsAre(change("prop-service-keys/Keys.1.Label", "Keys.1.Label", "new"), answer("Keys.1.Label", "new")));
    EXPECT_EQ(store.values, (std::map<std::string, std::string>{{"System.Name", "kept"}, {"Keys.1.Label", "new"}}));
}

TEST_F(Service, VolatileKeyIsNeverStored) {
    handle({set("System.Uptime", "5")});
    EXPECT_EQ(store.transactions, 0);
    restart();
    EXPECT_THAT(handle({get("System.Uptime")}), ElementsAre(answer("System.Uptime", "0")));
}

TEST_F(Service, DescribesAKey) {
    const auto describe = [this](const std::string& payload) {
        return handle({request(propertyprotocol::describeTopic, payload)});
    };
    EXPECT_THAT(describe(R"({"param":"System.Port"})"),
                ElementsAre(R"(me/reply {"param":"System.Port","type":"integer","default":"5","description":"d",)"
                            R"("readOnly":false,"volatile":false,"min":1,"max":9})"));
    EXPECT_THAT(describe(R"({"param":"System.Password"})"),
                ElementsAre(R"(me/reply {"param":"System.Password","type":"secret","default":"***","description":"s",)"
                            R"("readOnly":false,"volatile":false,"maxLength":8})"));
    EXPECT_THAT(
        describe(R"({"param":"System.Trigger"})"),
        ElementsAre(R"(me/reply {"param":"System.Trigger","type":"enum","default":"","description":"d",)"
                    R"("readOnly":false,"volatile":false,"refusedSources":["file","web"],"values":["","go"]})"));
    EXPECT_THAT(describe(R"({"prefix":"State."})"),
                ElementsAre(R"(me/reply {"definitions":[{"param":"State.Provisioning","type":"text","default":"",)"
                            R"("description":"d","readOnly":false,"volatile":true}]})"));
    EXPECT_THAT(describe(R"({"param":"No.Such"})"),
                ElementsAre(error("No.Such", "not-found", "the catalogue has no such key")));
    EXPECT_THAT(describe("{}"), ElementsAre(error("", "bad-request", R"(\"param\" or \"prefix\" is missing)")));
}

std::string many(const std::string& properties, bool apply = true) {
    return "{\"properties\":[" + properties + "],\"source\":\"t\",\"apply\":" + (apply ? "true" : "false") + "}";
}

TEST_F(Service, ImportIsOneTransactionPublishedInOrder) {
    handle({set("System.Name", "before")});
    const int before = store.transactions;
    EXPECT_THAT(handle({request(propertyprotocol::importTopic, many(R"({"param":"System.Port","value":"7"},)"
                                                                    R"({"param":"System.Name","value":null},)"
                                                                    R"({"param":"State.Provisioning","value":"x"})"))}),
                ElementsAre(change("prop-service-system/System.Port", "System.Port", "7"),
                            change("prop-service-system/System.Name", "System.Name", "phone"),
                            change("prop-service-state/State.Provisioning", "State.Provisioning", "x"),
                            "me/reply {\"accepted\":3}"));
    EXPECT_EQ(store.transactions, before + 1);
    EXPECT_EQ(store.values, (std::map<std::string, std::string>{{"System.Port", "7"}}))
        << "a default must not be stored";
}

TEST_F(Service, ImportMayBeLargerThanOtherRequests) {
    const std::string large(60000, 'x');
    std::string other;
    while (other.size() < maxRequestBytes) other += R"({"param":"No","value":")" + large + "\"},";
    const auto answered =
        handle({request(propertyprotocol::importTopic, many(other + R"({"param":"System.Port","value":"7"})"))});
    EXPECT_THAT(answered, ElementsAre(HasSubstr("the catalogue has no such key")));
    while (other.size() < maxImportBytes) other += R"({"param":"No","value":")" + large + "\"},";
    EXPECT_THAT(
        handle({request(propertyprotocol::importTopic, many(other + R"({"param":"System.Port","value":"7"})"))}),
        ElementsAre(error("", "bad-request", "the payload is larger than 15728640 bytes")));
}

TEST_F(Service, ImportWithoutApplyChangesNothing) {
    EXPECT_THAT(handle({request(propertyprotocol::importTopic, many(R"({"param":"System.Port","value":"7"})", false))}),
                ElementsAre("me/reply {\"accepted\":1}"));
    EXPECT_THAT(handle({get("System.Port")}), ElementsAre(answer("System.Port", "5")));
    EXPECT_EQ(store.transactions, 0);
}

TEST_F(Service, ImportWithErrorsReportsAllAndChangesNothing) {
    EXPECT_THAT(handle({request(propertyprotocol::importTopic,
                                many(R"({"param":"System.Name","value":"x"},{"param":"No","value":"1"},)"
                                     R"({"param":"System.Port","value":"10"},)"
                                     R"({"param":"System.Name","value":"y"},)"
                                     R"({"param":"System.Serial","value":null})"))}),
                ElementsAre("me/reply {\"errors\":["
                            R"({"param":"No","error":"not-found","reason":"the catalogue has no such key"},)"
                            R"({"param":"System.Port","error":"invalid-value","reason":)"
                            R"("must be a whole number from 1 to 9"},)"
                            R"({"param":"System.Name","error":"bad-request","reason":"duplicate key"},)"
                            R"({"param":"System.Serial","error":"read-only","reason":)"
                            R"("may not be written by a client"}]})"));
    EXPECT_THAT(handle({get("System.Name")}), ElementsAre(answer("System.Name", "phone")));
    EXPECT_EQ(store.transactions, 0);
}

TEST_F(Service, ImportReportsAtMost1000Errors) {
    const auto errorsOf = [this](int count) {
        std::string properties = R"({"param":"No","value":""})";
        for (int index = 1; index < count; ++index) properties += R"(,{"param":"No","value":""})";
        const std::string text = handle({request(propertyprotocol::importTopic, many(properties))}).at(0);
        int errors = 0;
        for (auto at = text.find("not-found"); at != std::string::npos; at = text.find("not-found", at + 1)) ++errors;
        return errors;
    };
    EXPECT_EQ(errorsOf(999), 999);
    EXPECT_EQ(errorsOf(1000), 1000);
    EXPECT_EQ(errorsOf(1001), 1000);
}

TEST_F(Service, ImportThatTheStoreRefusesChangesNothing) {
    store.failingKey = "System.Port";
    EXPECT_THAT(handle({request(propertyprotocol::importTopic, many(R"({"param":"System.Name","value":"x"},)"
                                                                    R"({"param":"System.Port","value":"7"})")),
                        get("System.Name")}),
                ElementsAre(error("", "storage", refused), answer("System.Name", "phone")));
    EXPECT_TRUE(store.values.empty());
}

TEST_F(Service, MalformedImportIsABadRequest) {
    for (const char* payload :
         {"{}", R"({"properties":{}})", R"({"properties":[1]})", R"({"properties":[{"value":"x"}]})",
          R"({"properties":[{"param":"System.Name"}]})", R"({"properties":[{"param":"System.Name","value":1}]})",
          R"({"properties":[],"apply":"yes"})"}) {
        EXPECT_THAT(handle({request(propertyprotocol::importTopic, payload)}),
                    ElementsAre(HasSubstr("\"error\":\"bad-request\"")));
    }
}

Json::Value parsed(const std::string& json) {
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::string errors;
    EXPECT_TRUE(reader->parse(json.data(), json.data() + json.size(), &value, &errors)) << errors;
    return value;
}

// All keys, page by page.
std::vector<std::string> listed(PropertyService& service, const std::string& prefix, std::size_t& pages,
                                std::size_t& largest) {
    std::vector<std::string> keys;
    std::string after;
    do {
        const std::string payload = service.handle({list(prefix, after)}).at(0).payload;
        const Json::Value page = parsed(payload);
        for (const Json::Value& property : page["properties"]) keys.push_back(property["param"].asString());
        after = page.get("next", "").asString();
        ++pages;
        largest = std::max(largest, payload.size());
    } while (!after.empty() && pages < 1000);
    return keys;
}

TEST(Listing, HasAtMost1000EntriesAPage) {
    const Catalogue catalogue = Catalogue::parse(
        R"({"version":1,"keys":{"a.{0-2500}":{"type":"text","default":"","description":"d"}}})", "c.json");
    FakeStore store;
    PropertyService service(catalogue, store);
    std::size_t pages = 0;
    std::size_t largest = 0;
    const std::vector<std::string> keys = listed(service, "", pages, largest);
    EXPECT_EQ(pages, 3U);
    EXPECT_EQ(keys.size(), 2501U);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    const Json::Value first = parsed(service.handle({list("a.")}).at(0).payload);
    EXPECT_EQ(first["properties"].size(), 1000U);
    EXPECT_EQ(first["next"], first["properties"][999]["param"]);
    std::size_t wholePages = 0;
    EXPECT_EQ(listed(service, "a.1", wholePages, largest).size(), 1111U);
}

TEST(Listing, HasShorterPagesForLargeValues) {
    const Catalogue catalogue = Catalogue::parse(
        R"({"version":1,"keys":{"a.{0-99}":{"type":"text","default":"","description":"d"}}})", "c.json");
    FakeStore store;
    for (int index = 0; index < 100; ++index) {
        store.values["a." + std::to_string(index)] = std::string(maxValueBytes, 'x');
    }
    PropertyService service(catalogue, store);
    std::size_t pages = 0;
    std::size_t largest = 0;
    EXPECT_EQ(listed(service, "", pages, largest).size(), 100U);
    EXPECT_GT(pages, 5U);
    EXPECT_LE(largest, maxPageBytes + 1000);
}

ipc::ServiceRequest listUncatalogued(const std::string& after = "") {
    return request(propertyprotocol::listTopic, R"({"uncatalogued":true,"after":")" + after + "\"}");
}

TEST_F(Service, ListsStoredValuesWithoutAKeyInTheCatalogue) {
    store.values = {{"Gone.B", "2"},
                    {"Gone.A", "1"},
                    {"System.Name", "of the catalogue"},
                    {"System.Uptime", "volatile today"},
                    {"Gone.Long", std::string(maxValueBytes + 1, 'x')},
                    {"Gone.Bytes", "\xff"},
                    {"Gone.\xff", "x"},
                    {"Gone.Nul", std::string("a\0b", 3)}};
    EXPECT_THAT(handle({listUncatalogued()}),
                ElementsAre("me/reply {\"properties\":[{\"param\":\"Gone.A\",\"value\":\"1\"},"
                            "{\"param\":\"Gone.B\",\"value\":\"2\"}]}"));
    EXPECT_THAT(handle({listUncatalogued("Gone.A")}),
                ElementsAre("me/reply {\"properties\":[{\"param\":\"Gone.B\",\"value\":\"2\"}]}"));
    EXPECT_THAT(handle({listUncatalogued("Gone.B")}), ElementsAre("me/reply {\"properties\":[]}"));
    EXPECT_THAT(handle({get("System.Uptime")}), ElementsAre(answer("System.Uptime", "0")));
}

TEST_F(Service, RebuiltStoreHasValuesWithoutAKeyInTheCatalogue) {
    store.values = {{"Gone.A", "1"}, {"System.Name", "kept"}};
    handle({get("System.Name")});
    store.values.clear();
    store.damaged = true;
    handle({set("System.Port", "7")});
    EXPECT_EQ(store.values,
              (std::map<std::string, std::string>{{"Gone.A", "1"}, {"System.Name", "kept"}, {"System.Port", "7"}}));
}

TEST_F(Service, ExceptionThatIsNotTheStoresLeavesTheOldValues) {
    handle({set("System.Name", "old")});
    store.outOfMemory = true;
    EXPECT_THROW(handle({set("System.Port", "7"), set("System.Name", "new"), set("System.Name", "newer")}),
                 std::bad_alloc);
    store.outOfMemory = false;
    EXPECT_THAT(handle({get("System.Name"), get("System.Port")}),
                ElementsAre(answer("System.Name", "old"), answer("System.Port", "5")));
    handle({set("Keys.0.Label", "x")});
    EXPECT_EQ(store.values, (std::map<std::string, std::string>{{"System.Name", "old"}, {"Keys.0.Label", "x"}}))
        << "nothing of the failed requests may be stored later";
}

TEST_F(Service, ImportOfSeveralKeysThatTheStoreRefusesNamesNone) {
    store.full = true;
    EXPECT_THAT(
        handle({request(propertyprotocol::importTopic,
                        R"({"properties":[{"param":"System.Name","value":"a"},{"param":"System.Port","value":"7"}],)"
                        R"("apply":true})")}),
        ElementsAre(error("", "storage", refused)));
    EXPECT_THAT(handle({get("System.Name"), get("System.Port")}),
                ElementsAre(answer("System.Name", "phone"), answer("System.Port", "5")));
}

TEST(Listing, OfUncataloguedValuesHasAtMost1000EntriesAPage) {
    const Catalogue catalogue =
        Catalogue::parse(R"({"version":1,"keys":{"a":{"type":"text","default":"","description":"d"}}})", "c.json");
    FakeStore store;
    for (int index = 0; index < 1500; ++index) store.values["gone." + std::to_string(index)] = "x";
    for (int index = 0; index < 20; ++index) store.values["large." + std::to_string(index)] = std::string(60000, 'x');
    PropertyService service(catalogue, store);
    std::size_t pages = 0;
    std::size_t entries = 0;
    std::string after;
    do {
        const std::string payload = service.handle({listUncatalogued(after)}).at(0).payload;
        const Json::Value page = parsed(payload);
        EXPECT_LE(page["properties"].size(), 1000U);
        EXPECT_LE(payload.size(), maxPageBytes + 1000);
        entries += page["properties"].size();
        after = page.get("next", "").asString();
        ++pages;
    } while (!after.empty() && pages < 100);
    EXPECT_EQ(entries, 1520U);
    EXPECT_GT(pages, 2U);
}

}  // namespace
}  // namespace propertyservice
