#include "Delivery.h"

#include <gtest/gtest.h>

#include "BusFixtures.h"

namespace {

using bustest::Gate;
using bustest::Recorder;

TEST(Delivery, KeepsTheOrder) {
    Recorder recorder;
    ipc::Delivery delivery("a/#", recorder);
    for (int i = 0; i < 100; ++i) delivery.messageArrived("a/b", std::to_string(i));
    ASSERT_TRUE(recorder.waitForMessages(100));
    for (size_t i = 0; i < 100; ++i) EXPECT_EQ(recorder.contents()[i], std::to_string(i));
}

TEST(Delivery, DropsTheOldestBeyondItsLimitAndWarnsOncePerOverflow) {
    Recorder recorder;
    Gate gate;
    recorder.onMessage = [&gate](const std::string&, const std::string& content) {
        if (content == "first") gate.pass();
    };
    ipc::Delivery delivery("busy/#", recorder);
    delivery.messageArrived("t", "first");
    ASSERT_TRUE(recorder.waitForMessages(1));  // being delivered, no longer queued
    testing::internal::CaptureStderr();
    for (size_t i = 0; i < ipc::Delivery::maxItems + 5; ++i) delivery.messageArrived("t", std::to_string(i));
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string warning = "Messages for \"busy/#\" arrive faster than they are handled";
    const size_t at = log.find(warning);
    EXPECT_NE(at, std::string::npos) << log;
    EXPECT_EQ(log.find(warning, at + 1), std::string::npos) << log;
    gate.open();
    ASSERT_TRUE(recorder.waitForMessages(1 + ipc::Delivery::maxItems));
    EXPECT_EQ(recorder.contents()[1], "5");
    EXPECT_EQ(recorder.contents().back(), std::to_string(ipc::Delivery::maxItems + 4));
}

TEST(Delivery, IsBoundedInBytesAndKeepsTheNewest) {
    Recorder recorder;
    Gate gate;
    recorder.onMessage = [&gate](const std::string&, const std::string& content) {
        if (content == "first") gate.pass();
    };
    ipc::Delivery delivery("large/#", recorder);
    delivery.messageArrived("t", "first");
    ASSERT_TRUE(recorder.waitForMessages(1));
    delivery.messageArrived("t", "small");
    delivery.messageArrived("t", std::string(ipc::Delivery::maxBytes + 1, 'x'));
    gate.open();
    ASSERT_TRUE(recorder.waitForMessages(2));
    EXPECT_EQ(recorder.contents()[1].size(), ipc::Delivery::maxBytes + 1);
}

TEST(Delivery, SurvivesAnExceptionOfTheCallback) {
    Recorder recorder;
    recorder.onMessage = [](const std::string&, const std::string& content) {
        if (content == "std") throw std::runtime_error("no luck");
        if (content == "odd") throw 7;
    };
    testing::internal::CaptureStderr();
    {
        ipc::Delivery delivery("a/#", recorder);
        delivery.messageArrived("t", "std");
        delivery.messageArrived("t", "odd");
        delivery.messageArrived("t", "good");
        ASSERT_TRUE(recorder.waitForMessages(3));
    }
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("no luck"), std::string::npos) << log;
    EXPECT_NE(log.find("Unknown exception in the callback"), std::string::npos) << log;
}

TEST(Delivery, CallsNothingAfterStop) {
    Recorder recorder;
    Gate gate;
    recorder.onMessage = [&gate](const std::string&, const std::string&) { gate.pass(); };
    ipc::Delivery delivery("a/#", recorder);
    for (int i = 0; i < 50; ++i) delivery.messageArrived("t", "x");
    ASSERT_TRUE(recorder.waitForMessages(1));
    delivery.requestStop();
    gate.open();
    delivery.stop();
    const size_t delivered = recorder.messages().size();
    delivery.messageArrived("t", "late");
    EXPECT_EQ(delivered, 1U);
    EXPECT_EQ(recorder.messages().size(), delivered);
}

}  // namespace
