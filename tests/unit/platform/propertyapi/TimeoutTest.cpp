// Time-outs of property calls: normally, after a time-out, and during shutdown.
#include <gtest/gtest.h>

#include <memory>

#include "ScriptedBus.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

using namespace propertytest;
using propertyapi::PropertyException;
using propertyapi::PropertyTimeoutException;

class Timeout : public testing::Test {
 protected:
    // The time-out of one call, whether it was answered or not.
    milliseconds timeGiven() {
        const std::size_t before = bus->timeouts.size();
        try {
            properties->get("A.Key");
        } catch (const PropertyException&) {
        }
        return bus->timeouts.size() == before ? milliseconds(0) : bus->timeouts.back();
    }

    const std::shared_ptr<ScriptedBus> bus = std::make_shared<ScriptedBus>();
    const std::shared_ptr<propertyapi::IPropertyApi> properties =
        propertyapi::PropertyApiBuilder::getPropertyApi(bus, "tester");
};

TEST_F(Timeout, IsFiveSecondsThenOneUntilAnAnswerComes) {
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(5000));
    for (int call = 0; call < 3; ++call) EXPECT_PRED2(isAbout, timeGiven(), milliseconds(1000));
    EXPECT_EQ(bus->asked.size(), 4U) << "each call is sent";
    bus->answers = {value("x")};
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(1000));
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(5000));
}

TEST_F(Timeout, IsRestoredByARefusal) {
    timeGiven();
    bus->answers = {[] { return std::string(R"({"param":"A.Key","error":"not-found","reason":""})"); }};
    EXPECT_THROW(properties->get("A.Key"), propertyapi::PropertyNotFoundException);
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(5000));
}

TEST_F(Timeout, IsRestoredByALateAnswer) {
    timeGiven();
    ++bus->received;  // after its call has timed out
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(5000));
}

TEST_F(Timeout, IsNotShortenedByAnOutage) {
    bus->answers = {offline, lost, offline, broken, value("x")};
    for (int call = 0; call < 3; ++call) EXPECT_PRED2(isAbout, timeGiven(), milliseconds(5000));
}

TEST_F(Timeout, IsTwoSecondsDuringShutdown) {
    properties->beginShutdown();
    EXPECT_EQ(bus->limit, milliseconds(2000)) << "for requests in flight";
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(2000));
}

TEST_F(Timeout, EndsCallsAtOnceAfterATimeoutDuringShutdown) {
    properties->beginShutdown();
    timeGiven();
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    EXPECT_THROW(properties->set("A.Key", "x"), PropertyTimeoutException);
    EXPECT_THROW(properties->list("A.", ""), PropertyTimeoutException);
    EXPECT_EQ(bus->asked.size(), 1U) << "nothing more is sent";
    ++bus->received;
    EXPECT_PRED2(isAbout, timeGiven(), milliseconds(2000));
}

TEST_F(Timeout, EndsCallsAtOnceIfShutdownBeginsAfterATimeout) {
    timeGiven();
    properties->beginShutdown();
    EXPECT_THROW(properties->get("A.Key"), PropertyTimeoutException);
    EXPECT_EQ(bus->asked.size(), 1U);
}

TEST_F(Timeout, OfACallInFlightEndsTwoSecondsAfterTheShutdownBegins) {
    bus->answers = {[this] {
        properties->beginShutdown();
        return broken();
    }};
    timeGiven();
    ASSERT_EQ(bus->timeouts.size(), 2U);
    EXPECT_PRED2(isAbout, bus->timeouts[1], milliseconds(2000));
}

TEST_F(Timeout, SecondShutdownCallChangesNothing) {
    properties->beginShutdown();
    bus->limit.reset();
    properties->beginShutdown();
    EXPECT_FALSE(bus->limit) << "a call in flight would get another two seconds";
}

TEST_F(Timeout, InvalidKeyIsStillUnknownDuringShutdown) {
    timeGiven();
    properties->beginShutdown();
    EXPECT_THROW(properties->get("\xff"), propertyapi::PropertyNotFoundException);
}

}  // namespace
