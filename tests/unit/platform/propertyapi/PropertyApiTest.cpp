#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ScriptedBus.h"
#include "ipc/IPCException.h"
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

}  // namespace
