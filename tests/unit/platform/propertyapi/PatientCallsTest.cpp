// Property calls during a restart of the property service, with and without PatientCalls on the thread.
#include "propertyapi/PatientCalls.h"

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

class PatientCalls : public testing::Test {
 protected:
    const std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "tester");
    std::optional<propertyapi::PatientCalls> patient{std::in_place};
};

TEST_F(PatientCalls, WaitFiveSecondsForTheService) {
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{get, wait, get}));
    EXPECT_EQ(bus->patiences, std::vector<milliseconds>{milliseconds(5000)});
}

TEST_F(PatientCalls, FailIfTheServiceStaysOffline) {
    bus->comesBack = false;
    bus->answers = {offline};
    EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException);
}

TEST_F(PatientCalls, RetryGetAndListInFlight) {
    bus->answers = {lost, offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{get, get, wait, get}));
    bus->answers = {lost, offline, [] { return std::string(R"({"properties":[]})"); }};
    EXPECT_TRUE(properties->list("A.", "").properties.empty());
}

TEST_F(PatientCalls, ReadBackASetInFlight) {
    bus->answers = {lost, offline, value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, wait, get})) << "executed: not sent again";
    bus->asked.clear();
    bus->answers = {lost, offline, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, wait, get, set})) << "not executed: sent again";
}

TEST_F(PatientCalls, ReadBackASetInFlightIfTheServiceIsBackAlready) {
    bus->answers = {lost, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, set}));
}

TEST_F(PatientCalls, SendASetTwiceAtMost) {
    bus->answers = {lost, value("old"), lost, value("old"), value("old")};
    EXPECT_THROW(properties->set("A.Key", "new"), PropertyTimeoutException) << "it crashes the service each time";
    EXPECT_EQ(bus->asked, (Topics{set, get, set}));
}

TEST_F(PatientCalls, HaveTheirFullTimeoutOnceTheServiceIsBack) {
    bus->answers = {late};
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_PRED2(isAbout, bus->timeouts[1], milliseconds(1000)) << "a call had timed out before the outage";
    EXPECT_PRED2(isAbout, bus->timeouts[2], milliseconds(5000));
}

TEST_F(PatientCalls, TimeOutOnAFrozenService) {
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    EXPECT_EQ(bus->asked, Topics{get});
}

TEST_F(PatientCalls, EndWhenTheObjectIsDestroyed) {
    { const propertyapi::PatientCalls nested; }
    EXPECT_TRUE(propertyapi::PatientCalls::onThisThread());
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    patient.reset();
    EXPECT_FALSE(propertyapi::PatientCalls::onThisThread());
    bus->answers = {offline, value("here")};
    EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException);
    bus->answers = {lost, offline, value("here")};
    EXPECT_THROW(properties->set("A.Key", "here"), PropertyOfflineException);
}

TEST_F(PatientCalls, AffectTheirOwnThreadOnly) {
    bus->answers = {offline, value("here")};
    std::thread([this] { EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException); }).join();
    EXPECT_EQ(bus->asked, Topics{get});
}

}  // namespace
