// Property calls whose connection is lost between request and answer.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ScriptedBus.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using namespace propertytest;

class Interrupted : public testing::Test {
 protected:
    const std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "tester");
};

TEST_F(Interrupted, RetriesGet) {
    bus->answers = {broken, broken, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{"prop-service/get", "prop-service/get", "prop-service/get"}));
}

TEST_F(Interrupted, RetriesList) {
    bus->answers = {broken, [] { return std::string(R"({"properties":[]})"); }};
    EXPECT_TRUE(properties->list("A.", "").properties.empty());
}

TEST_F(Interrupted, DoesNotRetryAnExecutedSet) {
    bus->answers = {broken, value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{"prop-service/set", "prop-service/get"}));
}

TEST_F(Interrupted, RetriesASetThatWasNotExecuted) {
    bus->answers = {broken, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{"prop-service/set", "prop-service/get", "prop-service/set"}));
}

TEST_F(Interrupted, SetInterruptedTwiceTimesOut) {
    bus->answers = {broken, value("old"), broken};
    EXPECT_THROW(properties->set("A.Key", "new"), propertyapi::PropertyTimeoutException);
}

TEST_F(Interrupted, FailsIfTheServiceStaysOffline) {
    bus->answers = {broken, offline};
    EXPECT_THROW(properties->get("A.Key"), propertyapi::PropertyOfflineException);
}

}  // namespace
