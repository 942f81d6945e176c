// Property calls across a restart of the property service, on a thread that waits for it and on one that does not.
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

TEST_F(PatientCalls, WaitFiveSecondsForAServiceThatWent) {
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{get, wait, get}));
    EXPECT_EQ(bus->patiences, std::vector<milliseconds>{milliseconds(5000)});
}

TEST_F(PatientCalls, FailWhenTheServiceStaysAway) {
    bus->comesBack = false;
    bus->answers = {offline};
    EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException);
}

TEST_F(PatientCalls, AskAgainWhatWasInFlight) {
    bus->answers = {lost, offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_EQ(bus->asked, (Topics{get, get, wait, get}));
    bus->answers = {lost, offline, [] { return std::string(R"({"properties":[]})"); }};
    EXPECT_TRUE(properties->list("A.", "").properties.empty());
}

TEST_F(PatientCalls, ReadBackASetThatWasInFlight) {
    bus->answers = {lost, offline, value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, wait, get})) << "carried out: not made again";
    bus->asked.clear();
    bus->answers = {lost, offline, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, wait, get, set})) << "not carried out: made again";
}

TEST_F(PatientCalls, ReadBackASetThatWasInFlightWhenTheServiceIsBackAlready) {
    bus->answers = {lost, value("old"), value("new")};
    properties->set("A.Key", "new");
    EXPECT_EQ(bus->asked, (Topics{set, get, set}));
}

TEST_F(PatientCalls, MakeASetTwiceAtMost) {
    bus->answers = {lost, value("old"), lost, value("old"), value("old")};
    EXPECT_THROW(properties->set("A.Key", "new"), PropertyTimeoutException) << "it crashes the service each time";
    EXPECT_EQ(bus->asked, (Topics{set, get, set}));
}

TEST_F(PatientCalls, HaveTheirFullTimeOnceTheServiceIsBack) {
    bus->answers = {late};
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    bus->answers = {offline, value("here")};
    EXPECT_EQ(properties->get("A.Key"), "here");
    EXPECT_PRED2(isAbout, bus->timeouts[1], milliseconds(1000)) << "the service was silent before it went";
    EXPECT_PRED2(isAbout, bus->timeouts[2], milliseconds(5000));
}

TEST_F(PatientCalls, TimeOutOnAServiceThatIsFrozen) {
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    EXPECT_EQ(bus->asked, Topics{get});
}

TEST_F(PatientCalls, EndWithTheirObject) {
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

TEST_F(PatientCalls, AreOfTheirOwnThreadOnly) {
    bus->answers = {offline, value("here")};
    std::thread([this] { EXPECT_THROW(properties->get("A.Key"), PropertyOfflineException); }).join();
    EXPECT_EQ(bus->asked, Topics{get});
}

}  // namespace
