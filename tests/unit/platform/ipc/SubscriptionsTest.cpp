#include "Subscriptions.h"

#include <gtest/gtest.h>
#include <mqtt_protocol.h>

#include <string>

#include "ipc/IPCException.h"

namespace {

using ipc::Subscriptions;
using Answer = Subscriptions::Answer;

constexpr int onlyNew = MQTT_SUB_OPT_SEND_RETAIN_NEW;

TEST(Subscriptions, ArePendingUntilTheBrokerAnswers) {
    Subscriptions subscriptions;
    const auto identifier = subscriptions.add("a/#", 1, onlyNew, true);
    EXPECT_TRUE(subscriptions.isSettled()) << "nothing was sent";
    subscriptions.sent(identifier, 12);
    EXPECT_FALSE(subscriptions.isSettled());
    EXPECT_EQ(subscriptions.find(identifier)->answer, Answer::pending);
    EXPECT_EQ(subscriptions.answered(11, ""), nullptr);
    EXPECT_FALSE(subscriptions.isSettled());
    EXPECT_EQ(subscriptions.answered(12, "")->filter, "a/#");
    EXPECT_TRUE(subscriptions.isSettled());
    EXPECT_EQ(subscriptions.find(identifier)->answer, Answer::granted);
    EXPECT_NO_THROW(subscriptions.requireGranted());
}

TEST(Subscriptions, RefusalThrowsWithTheBrokersReason) {
    Subscriptions subscriptions;
    subscriptions.sent(subscriptions.add("good", 1, onlyNew, true), 1);
    subscriptions.sent(subscriptions.add("bad", 1, onlyNew, true), 2);
    subscriptions.answered(1, "");
    subscriptions.answered(2, "Not authorized");
    try {
        subscriptions.requireGranted();
        FAIL() << "no exception";
    } catch (const ipc::IPCException& error) {
        EXPECT_STREQ(error.what(), "The broker refuses the subscription \"bad\": Not authorized");
    }
}

TEST(Subscriptions, OfOneFilterAreSharedUntilTheLastIsRemoved) {
    Subscriptions subscriptions;
    const auto identifier = subscriptions.add("a", 0, onlyNew, true);
    subscriptions.sent(identifier, 1);
    subscriptions.answered(1, "");
    EXPECT_EQ(subscriptions.add("a", 1, onlyNew, true), identifier);
    const auto& shared = *subscriptions.find(identifier);
    EXPECT_EQ(shared.qualityOfService, 1) << "the higher of both";
    EXPECT_EQ(shared.retained, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS) << "the second user needs the retained messages too";
    EXPECT_EQ(shared.answer, Answer::pending) << "it must be sent again";
    EXPECT_EQ(subscriptions.remove(identifier), std::nullopt);
    EXPECT_EQ(subscriptions.remove(identifier), "a");
    EXPECT_EQ(subscriptions.remove(identifier), std::nullopt);
    EXPECT_EQ(subscriptions.find(identifier), nullptr);
    EXPECT_NE(subscriptions.add("a", 0, onlyNew, true), identifier)
        << "it would get late messages of the old subscription";
}

TEST(Subscriptions, AreNamedIfOneUserOfTheFilterWantsIt) {
    Subscriptions subscriptions;
    const auto identifier = subscriptions.add("a", 1, onlyNew, false);
    EXPECT_FALSE(subscriptions.find(identifier)->isNamed);
    subscriptions.add("a", 1, onlyNew, true);
    EXPECT_TRUE(subscriptions.find(identifier)->isNamed);
    subscriptions.add("a", 1, onlyNew, false);
    EXPECT_TRUE(subscriptions.find(identifier)->isNamed);
}

TEST(Subscriptions, ArePendingAgainOnANewConnection) {
    Subscriptions subscriptions;
    const auto answered = subscriptions.add("a", 1, onlyNew, true);
    const auto asked = subscriptions.add("b", 1, onlyNew, true);
    subscriptions.sent(answered, 1);
    subscriptions.sent(asked, 2);
    subscriptions.answered(1, "");
    subscriptions.startConnection();
    EXPECT_TRUE(subscriptions.isSettled());
    EXPECT_EQ(subscriptions.all().size(), 2U);
    EXPECT_EQ(subscriptions.find(answered)->answer, Answer::pending);
    EXPECT_EQ(subscriptions.answered(2, ""), nullptr) << "the answer belongs to the previous connection";
}

TEST(Subscriptions, MayBeRemovedBeforeTheAnswer) {
    Subscriptions subscriptions;
    const auto identifier = subscriptions.add("a", 1, onlyNew, true);
    subscriptions.sent(identifier, 1);
    subscriptions.remove(identifier);
    EXPECT_EQ(subscriptions.answered(1, "refused"), nullptr);
    EXPECT_TRUE(subscriptions.isSettled());
    EXPECT_NO_THROW(subscriptions.requireGranted());
}

TEST(Subscriptions, AreRefusedIfTheyCannotBeSent) {
    Subscriptions subscriptions;
    const auto identifier = subscriptions.add("a", 1, onlyNew, true);
    subscriptions.refuse(identifier, "too large");
    EXPECT_EQ(subscriptions.find(identifier)->answer, Answer::refused);
    EXPECT_TRUE(subscriptions.isSettled());
    EXPECT_THROW(subscriptions.requireGranted(), ipc::IPCException);
}

}  // namespace
