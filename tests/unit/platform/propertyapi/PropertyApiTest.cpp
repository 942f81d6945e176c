#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <map>
#include <sstream>

#include "ScriptedBus.h"
#include "fakes/Broker.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using namespace propertyapi;
using propertytest::ScriptedBus;

struct PropertyApi : testing::Test {
    static std::string value() { return R"({"param":"A.B","value":"7"})"; }

    std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    std::shared_ptr<IPropertyApi> properties = PropertyApiBuilder::getPropertyApi(bus, "prov-client");
};

TEST_F(PropertyApi, WatchesTheServicesPresence) { EXPECT_EQ(bus->watched, "prop-service/status"); }

TEST_F(PropertyApi, Gets) {
    bus->answers = {value};
    EXPECT_EQ(properties->get("A.B"), "7");
    EXPECT_EQ(bus->asked, propertytest::Topics{"prop-service/get"});
    EXPECT_EQ(bus->payloads.back(), R"({"param":"A.B"})");
    EXPECT_EQ(bus->status, "prop-service/status");
}

TEST_F(PropertyApi, SetsWithTheDefaultOrAnotherSource) {
    bus->answers = {value, value};
    properties->set("A.B", "7");
    EXPECT_EQ(bus->asked, propertytest::Topics{"prop-service/set"});
    EXPECT_EQ(bus->payloads.back(), R"({"param":"A.B","value":"7","source":"prov-client"})");
    properties->set("A.B", "provisioning", "7");
    EXPECT_EQ(bus->payloads.back(), R"({"param":"A.B","value":"7","source":"provisioning"})");
}

TEST_F(PropertyApi, DoesNotSendInvalidKeysAndValues) {
    EXPECT_THROW(properties->set("A.B", "\xff"), PropertyInvalidValueException);
    EXPECT_THROW(properties->set("A.B", std::string(65537, 'x')), PropertyInvalidValueException);
    EXPECT_THROW(properties->get("\xff"), PropertyNotFoundException);
    EXPECT_THROW(properties->get(std::string(256, 'K')), PropertyNotFoundException);
    EXPECT_TRUE(bus->asked.empty());
}

TEST_F(PropertyApi, BusErrorsHaveTheKey) {
    const auto textOf = [this] {
        try {
            properties->get("A.B");
        } catch (const PropertyOfflineException& error) {
            return std::string("offline|") + error.what();
        } catch (const PropertyTimeoutException& error) {
            return std::string("timeout|") + error.what();
        } catch (const PropertyException& error) {
            return std::string("other|") + error.what();
        }
        return std::string("none");
    };
    bus->answers = {[]() -> std::string { throw ipc::IPCOfflineException("away"); }};
    EXPECT_EQ(textOf(), "offline|Property 'A.B': away");
    bus->answers = {[]() -> std::string { throw ipc::IPCTimeoutException("late"); }};
    EXPECT_EQ(textOf(), "timeout|Property 'A.B': late");
    bus->answers = {[]() -> std::string { throw ipc::IPCException("odd"); }};
    EXPECT_EQ(textOf(), "other|Property 'A.B': odd");
}

/// End to end: a small property service on a real broker.
TEST(PropertyApiOnTheBus, ReadsWritesAndLists) {
    fakes::Broker broker;
    std::map<std::string, std::string> store{{"A.1", "one"}, {"A.2", "two"}, {"B.1", "gr\xc3\xbc\xc3\x9f"}};
    const auto service = ipc::IPCFactory::createService("prop-service");
    service->start(broker.address(), "prop-service/status",
                   {"prop-service/get", "prop-service/set", "prop-service/list"},
                   [&](const std::vector<ipc::ServiceRequest>& requests) {
                       std::vector<ipc::OutgoingMessage> answers;
                       for (const auto& request : requests) {
                           Json::Value asked;
                           std::istringstream(request.payload) >> asked;
                           Json::Value answer;
                           const std::string key = asked["param"].asString();
                           if (request.topic == "prop-service/list") {
                               answer["properties"] = Json::arrayValue;
                               for (const auto& [name, value] : store) {
                                   if (name.rfind(asked["prefix"].asString(), 0) != 0) continue;
                                   Json::Value entry;
                                   entry["param"] = name;
                                   entry["value"] = value;
                                   answer["properties"].append(entry);
                               }
                           } else if (store.count(key) == 0) {
                               answer["param"] = key;
                               answer["error"] = "not-found";
                               answer["reason"] = "not in the catalogue";
                           } else {
                               if (request.topic == "prop-service/set") store[key] = asked["value"].asString();
                               answer["param"] = key;
                               answer["value"] = store[key];
                           }
                           Json::StreamWriterBuilder writer;
                           answers.push_back({request.responseTopic, Json::writeString(writer, answer),
                                              request.correlationData, request.qualityOfService});
                       }
                       return answers;
                   });
    const auto bus = ipc::IPCFactory::createInstanceShared("prov-client", "localhost", false);
    const auto properties = PropertyApiBuilder::getPropertyApi(bus, "prov-client");
    bus->connect(broker.address());
    EXPECT_EQ(properties->get("B.1"), "gr\xc3\xbc\xc3\x9f");
    properties->set("A.1", "\"new\"\n");
    EXPECT_EQ(properties->get("A.1"), "\"new\"\n");
    const PropertyPage page = properties->list("A.", "");
    ASSERT_EQ(page.properties.size(), 2U);
    EXPECT_EQ(page.properties[1].value, "two");
    EXPECT_THROW(properties->get("No.Such.Key"), PropertyNotFoundException);
    service->stop();
}

}  // namespace
