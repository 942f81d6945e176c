// Property calls during a restart of the property service, with and without RecoveryScope on the thread.
#include "propertyapi/RecoveryScope.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <thread>

#include "ScriptedBus.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using namespace propertytest;
using propertyapi::PropertyOfflineException;
using propertyapi::PropertyTimeoutException;

const std::string get = "prop-service/get";
const std::string set = "prop-service/set";
const std::string wait = "wait for prop-service/status";

class RecoveryScope : public testing::Test {
 protected:
    const std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "tester");
    std::optional<propertyapi::RecoveryScope> scope{std::in_place};
};

TEST_F(RecoveryScope, WaitFiveSecondsForTheService) {
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{get, wait, get}));
    EXPECT_EQ(bus->waits, std::vector<milliseconds>{milliseconds(5000)});
}

TEST_F(RecoveryScope, FailIfTheServiceStaysOffline) {
    bus->comesBack = false;
    bus->answers = {offline};
    EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException);
}

TEST_F(RecoveryScope, RetryGetAndListInFlight) {
    bus->answers = {lost, offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{get, get, wait, get}));
    bus->answers = {lost, offline, [] { return std::string(R"({"properties":[]})"); }};
    EXPECT_TRUE(properties->list("A.", "").properties.empty());
}

TEST_F(RecoveryScope, ReadBackASetInFlight) {
    bus->answers = {lost, offline, value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, wait, get})) << "executed: not sent again";
    bus->asked.clear();
    bus->answers = {lost, offline, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, wait, get, set})) << "not executed: sent again";
}

TEST_F(RecoveryScope, ReadBackASetInFlightIfTheServiceIsBackAlready) {
    bus->answers = {lost, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, set}));
}

TEST_F(RecoveryScope, SendASetTwiceAtMost) {
    bus->answers = {lost, value("old"), lost, value("old"), value("old")};
    EXPECT_THROW(properties->set("A.Key", "new"), PropertyTimeoutException) << "it crashes the service each time";
    EXPECT_EQ(bus->asked, (Topics{set, get, set}));
}

TEST_F(RecoveryScope, HaveTheirFullTimeoutOnceTheServiceIsBack) {
    bus->answers = {late};
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_PRED2(isAbout, bus->timeouts[1], milliseconds(1000)) << "a call had timed out before the outage";
    EXPECT_PRED2(isAbout, bus->timeouts[2], milliseconds(5000));
}

TEST_F(RecoveryScope, TimeOutOnAFrozenService) {
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    EXPECT_EQ(bus->asked, Topics{get});
}

TEST_F(RecoveryScope, EndWhenTheObjectIsDestroyed) {
    { const propertyapi::RecoveryScope nested; }
    EXPECT_TRUE(propertyapi::RecoveryScope::onThisThread());
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    scope.reset();
    EXPECT_FALSE(propertyapi::RecoveryScope::onThisThread());
    bus->answers = {offline, value("here")};
    EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException);
    bus->answers = {lost, offline, value("here")};
    EXPECT_THROW(properties->set("A.Key", "here"), PropertyOfflineException);
}

TEST_F(RecoveryScope, AffectTheirOwnThreadOnly) {
    bus->answers = {offline, value("here")};
    std::thread([this] { EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException); }).join();
    EXPECT_EQ(bus->asked, Topics{get});
}

}  // namespace
