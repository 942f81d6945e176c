#include "Outbox.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using ipc::Congestion;
using ipc::Outbox;

ipc::Message message(const std::string& topic, const std::string& payload = "x") { return {topic, payload, 1, {}, {}}; }

std::vector<std::string> topics(Outbox& outbox) {
    std::vector<std::string> all;
    for (const Outbox::Entry& entry : outbox.entries()) all.push_back(entry.topic);
    return all;
}

void fill(Outbox& outbox, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) outbox.add(message("t"), false);
}

TEST(Outbox, KeepsAMessageUntilItIsAcknowledged) {
    Outbox outbox;
    outbox.add(message("a"), false).identifier = 7;
    outbox.add(message("b"), true).identifier = 8;
    EXPECT_EQ(outbox.settle(9), std::nullopt);
    EXPECT_EQ(outbox.settle(8), "b");
    EXPECT_EQ(outbox.settle(8), std::nullopt);
    EXPECT_EQ(topics(outbox), std::vector<std::string>{"a"});
    EXPECT_EQ(outbox.settle(7), "a");
    EXPECT_TRUE(outbox.isEmpty());
}

TEST(Outbox, CopiesAllFieldsOfAMessage) {
    Outbox outbox;
    {
        const std::string topic = "some/topic";
        const std::string payload("p\0q", 3);
        outbox.add({topic, payload, 1, "answer/to", "42"}, true);
    }
    const Outbox::Entry& entry = outbox.entries().front();
    EXPECT_TRUE(entry.retain);
    EXPECT_EQ(entry.message().topic, "some/topic");
    EXPECT_EQ(entry.message().payload, std::string("p\0q", 3));
    EXPECT_EQ(entry.message().qualityOfService, 1);
    EXPECT_EQ(entry.message().responseTopic, "answer/to");
    EXPECT_EQ(entry.message().correlationData, "42");
}

TEST(Outbox, ResendsInOrderOnANewConnection) {
    Outbox outbox;
    outbox.add(message("a"), false).identifier = 1;
    outbox.add(message("b"), false).identifier = 2;
    outbox.noteUnsent(100);
    outbox.startConnection();
    EXPECT_EQ(topics(outbox), (std::vector<std::string>{"a", "b"}));
    for (const Outbox::Entry& entry : outbox.entries()) EXPECT_EQ(entry.identifier, Outbox::Entry::unsent);
    EXPECT_EQ(outbox.settle(1), std::nullopt) << "the identifier belongs to the previous connection";
    EXPECT_EQ(outbox.unsent(), 0U);
}

TEST(Outbox, DropsRefusedMessages) {
    Outbox outbox;
    outbox.add(message("a"), false).identifier = Outbox::Entry::refused;
    outbox.add(message("b"), false);
    EXPECT_TRUE(outbox.dropRefused());
    EXPECT_EQ(topics(outbox), std::vector<std::string>{"b"});
    EXPECT_FALSE(outbox.dropRefused());
}

TEST(Outbox, DropsATopic) {
    Outbox outbox;
    for (const char* topic : {"status", "a", "status", "status/b"}) outbox.add(message(topic), false);
    outbox.dropTopic("status");
    EXPECT_EQ(topics(outbox), (std::vector<std::string>{"a", "status/b"}));
}

TEST(Outbox, IsFullWithTenThousandMessages) {
    Outbox outbox;
    fill(outbox, 9999);
    EXPECT_FALSE(outbox.isFull());
    fill(outbox, 1);
    EXPECT_TRUE(outbox.isFull());
}

TEST(Outbox, IsCongestedFromFiveThousandMessages) {
    Outbox outbox;
    fill(outbox, 4999);
    EXPECT_EQ(outbox.congestion(), Congestion::none);
    outbox.add(message("t"), false).identifier = 5;
    EXPECT_EQ(outbox.congestion(), Congestion::unacknowledged);
    outbox.settle(5);
    EXPECT_EQ(outbox.congestion(), Congestion::none);
}

TEST(Outbox, IsCongestedFromTheReceiveMaximum) {
    Outbox outbox;
    outbox.limitUnacknowledged(2);
    outbox.add(message("t"), false).identifier = 1;
    EXPECT_EQ(outbox.congestion(), Congestion::none);
    outbox.add(message("t"), false).identifier = 2;
    EXPECT_EQ(outbox.congestion(), Congestion::unacknowledged);
    outbox.settle(1);
    EXPECT_EQ(outbox.congestion(), Congestion::none);
}

TEST(Outbox, IsCongestedFromFourMebibytes) {
    const std::string most(Outbox::congestionBytes - 4, 'x');
    for (const bool inCorrelationData : {false, true}) {
        Outbox outbox;
        outbox.add({"t", inCorrelationData ? "" : most, 1, "", inCorrelationData ? most : ""}, false).identifier = 5;
        EXPECT_EQ(outbox.congestion(), Congestion::none);
        outbox.add(message("tt"), false).identifier = Outbox::Entry::refused;
        EXPECT_EQ(outbox.congestion(), Congestion::unacknowledged);
        outbox.dropRefused();
        EXPECT_EQ(outbox.congestion(), Congestion::none);
        outbox.settle(5);
        outbox.add({"t", most, 1, {}, {}}, false);
        EXPECT_EQ(outbox.congestion(), Congestion::none) << "an acknowledged message still counts";
    }
}

TEST(Outbox, IsCongestedWhileTheSocketIsFull) {
    Outbox outbox;
    outbox.noteUnsent(Outbox::congestionBytes);
    EXPECT_EQ(outbox.congestion(), Congestion::unsent);
    outbox.noteAllSent();
    EXPECT_EQ(outbox.congestion(), Congestion::none);
    for (std::size_t i = 0; i < Outbox::maxWaiting; ++i) outbox.noteUnsent(1);
    EXPECT_EQ(outbox.congestion(), Congestion::unsent);
    EXPECT_TRUE(outbox.isSocketFull());
}

}  // namespace
