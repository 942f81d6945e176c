#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <map>
#include <sstream>

#include "fakes/Broker.h"
#include "ipc/IPCException.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using namespace propertyapi;

/// A bus client of which only `request` is of interest: answers what it is told to, and records.
class ScriptedBus : public ipc::IIPCClient {
 public:
    void connect(const std::string&) override {}
    void disconnect() override {}
    void subscribe(const std::string&, ipc::IIPCCallback&) override {}
    void publish(const std::string&, const std::string&, int) override {}
    void watchPresence(const std::string& statusTopic) override { watched = statusTopic; }
    std::string request(const std::string& requestTopic, const std::string& requestPayload,
                        const std::string& statusTopic, std::chrono::milliseconds requestTimeout) override {
        topic = requestTopic;
        payload = requestPayload;
        status = statusTopic;
        timeout = requestTimeout;
        ++requests;
        return answer();
    }

    std::function<std::string()> answer;
    std::string watched, topic, payload, status;
    std::chrono::milliseconds timeout{0};
    int requests = 0;
};

struct PropertyApi : testing::Test {
    std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    std::shared_ptr<IPropertyApi> properties = PropertyApiBuilder::getPropertyApi(bus, "prov-client");
};

TEST_F(PropertyApi, WatchesTheServicesPresence) { EXPECT_EQ(bus->watched, "prop-service/status"); }

TEST_F(PropertyApi, Gets) {
    bus->answer = [] { return R"({"param":"A.B","value":"7"})"; };
    EXPECT_EQ(properties->get("A.B"), "7");
    EXPECT_EQ(bus->topic, "prop-service/get");
    EXPECT_EQ(bus->payload, R"({"param":"A.B"})");
    EXPECT_EQ(bus->status, "prop-service/status");
    EXPECT_EQ(bus->timeout, std::chrono::milliseconds(5000));
}

TEST_F(PropertyApi, SetsInItsOwnNameOrAnother) {
    bus->answer = [] { return R"({"param":"A.B","value":"7"})"; };
    properties->set("A.B", "7");
    EXPECT_EQ(bus->topic, "prop-service/set");
    EXPECT_EQ(bus->payload, R"({"param":"A.B","value":"7","source":"prov-client"})");
    properties->set("A.B", "provisioning", "7");
    EXPECT_EQ(bus->payload, R"({"param":"A.B","value":"7","source":"provisioning"})");
}

TEST_F(PropertyApi, SendsNothingThatNoServiceCouldTake) {
    EXPECT_THROW(properties->set("A.B", "\xff"), PropertyInvalidValueException);
    EXPECT_THROW(properties->set("A.B", std::string(65537, 'x')), PropertyInvalidValueException);
    EXPECT_THROW(properties->get("\xff"), PropertyNotFoundException);
    EXPECT_THROW(properties->get(std::string(256, 'K')), PropertyNotFoundException);
    EXPECT_EQ(bus->requests, 0);
}

TEST_F(PropertyApi, NamesTheKeyWhenTheBusFails) {
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
    bus->answer = []() -> std::string { throw ipc::IPCOfflineException("away"); };
    EXPECT_EQ(textOf(), "offline|Property 'A.B': away");
    bus->answer = []() -> std::string { throw ipc::IPCTimeoutException("late"); };
    EXPECT_EQ(textOf(), "timeout|Property 'A.B': late");
    bus->answer = []() -> std::string { throw ipc::IPCException("odd"); };
    EXPECT_EQ(textOf(), "other|Property 'A.B': odd");
}

/// A small property service on a real broker: the whole way there and back.
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
