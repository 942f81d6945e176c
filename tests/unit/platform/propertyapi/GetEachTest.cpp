// Reading several keys in one call.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ScriptedBus.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "propertyapi/RecoveryScope.h"

namespace {

using namespace propertytest;
using propertyapi::Reading;

ScriptedBus::Answer answerOf(const std::string& key, const std::string& text) {
    return [=] { return R"({"param":")" + key + R"(","value":")" + text + R"("})"; };
}

/// What reading a value throws, as text.
std::string errorOf(const Reading& reading) {
    try {
        return "no error, but " + reading.value();
    } catch (const propertyapi::PropertyException& error) {
        return error.what();
    }
}

class GetEach : public testing::Test {
 protected:
    std::vector<Reading> read() { return properties->getEach({"A.1", "A.2", "A.3"}); }

    const std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "tester");
};

TEST_F(GetEach, SendsAllRequestsBeforeItAwaitsAResponse) {
    bus->answers = {answerOf("A.1", "one"), answerOf("A.2", "two"), answerOf("A.3", "three")};
    const auto readings = read();
    ASSERT_EQ(readings.size(), 3U);
    EXPECT_EQ(readings[0].value(), "one");
    EXPECT_EQ(readings[1].value(), "two");
    EXPECT_EQ(readings[2].value(), "three");
    EXPECT_EQ(bus->begun, (std::vector<std::string>{R"({"param":"A.1"})", R"({"param":"A.2"})", R"({"param":"A.3"})"}));
    EXPECT_EQ(bus->answeredAtBeginning, (std::vector<std::size_t>{0, 0, 0}));
    EXPECT_EQ(bus->asked, (Topics{"prop-service/get", "prop-service/get", "prop-service/get"}));
}

TEST_F(GetEach, OfNothingSendsNothing) {
    EXPECT_TRUE(properties->getEach({}).empty());
    EXPECT_TRUE(bus->begun.empty());
}

TEST_F(GetEach, AnErrorConcernsItsKeyOnly) {
    bus->answers = {answerOf("A.1", "one"),
                    [] { return std::string(R"({"param":"A.2","error":"not-found","reason":""})"); },
                    answerOf("A.3", "three")};
    const auto readings = read();
    EXPECT_EQ(readings[0].value(), "one");
    EXPECT_THROW(readings[1].value(), propertyapi::PropertyNotFoundException);
    EXPECT_EQ(errorOf(readings[1]), "Property 'A.2': unknown key");
    EXPECT_EQ(readings[2].value(), "three");
}

TEST_F(GetEach, DoesNotSendInvalidKeys) {
    bus->answers = {answerOf("A.1", "one")};
    const auto readings = properties->getEach({"\xff", "A.1"});
    EXPECT_THROW(readings[0].value(), propertyapi::PropertyNotFoundException);
    EXPECT_EQ(readings[1].value(), "one");
    EXPECT_EQ(bus->begun.size(), 1U);
}

TEST_F(GetEach, RetriesLostResponses) {
    bus->answers = {answerOf("A.1", "one"), broken, lost, answerOf("A.2", "two"), broken, answerOf("A.3", "three")};
    const auto readings = read();
    EXPECT_EQ(readings[0].value(), "one");
    EXPECT_EQ(readings[1].value(), "two");
    EXPECT_EQ(readings[2].value(), "three");
    EXPECT_EQ(bus->begun.size(), 3U) << "a retry awaits its response at once";
}

TEST_F(GetEach, EachKeyIsNamedIfTheServiceIsOffline) {
    bus->answers = {offline, offline, offline};
    const auto readings = read();
    EXPECT_EQ(errorOf(readings[0]), "Property 'A.1': the service is offline");
    EXPECT_EQ(errorOf(readings[1]), "Property 'A.2': the service is offline");
    EXPECT_EQ(errorOf(readings[2]), "Property 'A.3': the service is offline");
    EXPECT_THROW(readings[2].value(), propertyapi::PropertyOfflineException);
}

TEST_F(GetEach, AllKeysShareOneTimeout) {
    bus->answers = {late, broken};
    const auto readings = read();
    for (const Reading& reading : readings) EXPECT_THROW(reading.value(), propertyapi::PropertyTimeoutException);
    for (const milliseconds timeout : bus->timeouts) EXPECT_PRED2(isAbout, timeout, milliseconds(5000));
    bus->timeouts.clear();
    read();
    for (const milliseconds timeout : bus->timeouts) EXPECT_PRED2(isAbout, timeout, milliseconds(1000));
}

TEST_F(GetEach, FailsAtOnceAfterATimeoutDuringShutdown) {
    properties->beginShutdown();
    read();
    EXPECT_PRED2(isAbout, bus->timeouts.back(), milliseconds(2000));
    const std::size_t before = bus->begun.size();
    for (const Reading& reading : read()) EXPECT_THROW(reading.value(), propertyapi::PropertyTimeoutException);
    EXPECT_EQ(bus->begun.size(), before) << "nothing more is sent";
}

TEST_F(GetEach, WaitsForTheServiceInARecoveryScope) {
    const propertyapi::RecoveryScope recovery;
    bus->answers = {offline, answerOf("A.1", "one"), lost, offline, answerOf("A.2", "two"), answerOf("A.3", "three")};
    const auto readings = read();
    EXPECT_EQ(readings[0].value(), "one");
    EXPECT_EQ(readings[1].value(), "two");
    EXPECT_EQ(readings[2].value(), "three");
    EXPECT_EQ(bus->waits, (std::vector<milliseconds>(2, milliseconds(5000))));
}

TEST_F(GetEach, AllKeysHaveTheFullTimeoutOnceTheServiceIsBack) {
    const propertyapi::RecoveryScope recovery;
    bus->answers = {offline, answerOf("A.1", "one"), late, answerOf("A.2", "two"), late, answerOf("A.3", "three")};
    const auto readings = read();
    EXPECT_EQ(readings[0].value(), "one");
    EXPECT_EQ(readings[1].value(), "two");
    EXPECT_EQ(readings[2].value(), "three");
    EXPECT_PRED2(isAbout, bus->timeouts.back(), milliseconds(5000));
}

}  // namespace
