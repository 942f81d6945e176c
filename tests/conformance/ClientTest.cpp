#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"

namespace {

using namespace bustest;
using conformance::Bus;

TEST(Client, DeliversToASubscriptionMadeBeforeTheConnection) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("early");
    client->subscribe("news/#", recorder);
    client->connect(bus.address());
    client->publish("news/today", "rain", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    EXPECT_EQ(recorder.messages()[0], std::make_pair(std::string("news/today"), std::string("rain")));
    ASSERT_TRUE(recorder.waitForCompletions(1));
    EXPECT_EQ(recorder.completions()[0], "news/today");
    client->disconnect();
}

TEST(Client, DeliversToASubscriptionMadeLater) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("late");
    client->connect(bus.address());
    client->subscribe("news/#", recorder);
    client->publish("news/today", "sun", 0);
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->disconnect();
}

TEST(Client, MessagesSentSoonNeedNoOtherAndKeepTheirOrder) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("soon");
    client->subscribe("news/#", recorder);
    client->connect(bus.address());
    client->publishSoon("news/today", "rain");
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->publishSoon("news/today", "sun");
    client->publish("news/today", "wind", 0);
    ASSERT_TRUE(recorder.waitForMessages(3));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(recorder.messages()[i].second, (std::array{"rain", "sun", "wind"}[i]));
    }
    client->disconnect();
}

TEST(Client, CarriesAnyBytesUpToAMebibyte) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("bytes");
    client->subscribe("raw", recorder);
    client->connect(bus.address());
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    const std::string large(size_t{1024} * 1024, 'x');
    for (const std::string& payload : {all, std::string(), large}) client->publish("raw", payload, 1);
    ASSERT_TRUE(recorder.waitForMessages(3));
    EXPECT_EQ(recorder.contents()[0], all);
    EXPECT_EQ(recorder.contents()[1], "");
    EXPECT_TRUE(recorder.contents()[2] == large);
    client->disconnect();
}

TEST(Client, TopicsMayHaveAnyText) {
    const Bus bus;
    Recorder recorder;
    const std::string topic = "gr\xc3\xbc\xc3\x9f/\xe2\x82\xac \xf0\x9f\x93\x9e/-_.";
    const auto client = newClient("text");
    client->subscribe(topic, recorder);
    client->connect(bus.address());
    client->publish(topic, "x", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    EXPECT_EQ(recorder.messages()[0].first, topic);
    client->disconnect();
}

TEST(Client, DeliversOnceForEachOfOverlappingSubscriptions) {
    Bus bus;
    Recorder wide;
    Recorder narrow;
    Recorder twin;
    const auto client = newClient("overlap");
    client->subscribe("a/#", wide);
    client->subscribe("a/b", narrow);
    client->subscribe("a/b", twin);
    client->connect(bus.address());
    client->publish("a/b", "1", 1);
    client->publish("a/c", "2", 1);
    client->publish("a/b", "3", 1);
    ASSERT_TRUE(wide.waitForMessages(3));
    ASSERT_TRUE(narrow.waitForMessages(2));
    ASSERT_TRUE(twin.waitForMessages(2));
    EXPECT_EQ(wide.contents(), (std::vector<std::string>{"1", "2", "3"}));
    EXPECT_EQ(narrow.contents(), (std::vector<std::string>{"1", "3"}));
    EXPECT_EQ(twin.contents(), (std::vector<std::string>{"1", "3"}));
    client->disconnect();
}

TEST(Client, LaterSubscriptionGetsTheRetainedMessage) {
    NEEDS_REQUESTS();
    Bus bus;
    const EchoService service(bus.address());
    Recorder recorder;
    const auto client = newClient("retained");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
    ASSERT_TRUE(waitForService(*client));
    client->subscribe("test-service/+", recorder);
    ASSERT_TRUE(recorder.waitForMessages(1));
    EXPECT_EQ(recorder.messages()[0].first, statusTopic);
    EXPECT_EQ(recorder.messages()[0].second, "online");
    client->disconnect();
}

TEST(Client, ConnectsToItsDefaultHost) {
    const Bus bus;
    const auto client = conformance::busLibrary().client("at home", bus.address(), true);
    client->connect("");
    EXPECT_NO_THROW(client->publish("a", "b", 1));
    EXPECT_THROW(client->connect(""), ipc::IPCException) << "connected twice";
}

TEST(Client, ConnectThrowsWithoutABroker) {
    Bus bus;
    bus.stop();
    const auto client = newClient("refused");
    Recorder recorder;
    client->subscribe("a", recorder);
    try {
        client->connect(bus.address());
        FAIL() << "connected without a broker";
    } catch (const ipc::IPCException& error) {
        EXPECT_STRNE(error.what(), "");
    }
    EXPECT_THROW(client->publish("a", "b", 1), ipc::IPCException);
    EXPECT_THROW(client->connect(bus.address()), ipc::IPCException);
    EXPECT_THROW(client->subscribe("b", recorder), ipc::IPCException);
}

TEST(Client, ConnectTimesOutWhenTheBrokerDoesNotAnswer) {
    NEEDS_FREEZING();
    Bus bus;
    bus.freeze();
    const auto client = newClient("patient");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(client->connect(bus.address()), ipc::IPCException);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    bus.thaw();
}

TEST(Client, RefusesInvalidTopicsAndFilters) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("strict");
    client->connect(bus.address());
    for (const std::string& topic :
         {std::string(""), std::string("a/#"), std::string("a\0b", 3), std::string("\xff")}) {
        EXPECT_THROW(client->publish(topic, "x", 1), ipc::IPCException) << topic;
        EXPECT_THROW(client->publish(topic, "x", 0), ipc::IPCException) << topic;
    }
    for (const std::string& filter : {std::string(""), std::string("a/#/b"), std::string("a\0b", 3)}) {
        EXPECT_THROW(client->subscribe(filter, recorder), ipc::IPCException) << filter;
    }
    client->disconnect();
}

TEST(Client, NoEventsAfterAFailedSubscription) {
    NEEDS_FREEZING();
    Bus bus;
    Recorder invalid;
    Recorder unanswered;
    Recorder served;
    const auto client = newClient("early");
    client->subscribe("a", served);
    client->connect(bus.address());
    EXPECT_THROW(client->subscribe("a/#/b", invalid), ipc::IPCException);
    bus.freeze();
    std::thread also([&] { EXPECT_THROW(client->subscribe("b", served), ipc::IPCException); });
    EXPECT_THROW(client->subscribe("c", unanswered), ipc::IPCException);
    also.join();
    bus.thaw();
    bus.stop();
    EXPECT_TRUE(served.waitForLosses(1)) << "it still has a subscription";
    client->disconnect();
    EXPECT_TRUE(invalid.losses().empty());
    EXPECT_TRUE(unanswered.losses().empty());
}

TEST(Client, ThrowsBeforeConnect) {
    NEEDS_REQUESTS();
    const auto client = newClient("nobody");
    client->watchPresence(statusTopic);
    EXPECT_THROW(client->publish("a", "b", 1), ipc::IPCException);
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
}

TEST(Client, CallsNothingAfterDisconnect) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("quiet");
    const auto other = newClient("loud");
    client->subscribe("noise", recorder);
    client->connect(bus.address());
    other->connect(bus.address());
    for (int i = 0; i < 200; ++i) other->publish("noise", std::to_string(i), 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->disconnect();
    const size_t delivered = recorder.messages().size();
    Recorder witness;
    other->subscribe("noise", witness);
    other->publish("noise", "after", 1);
    ASSERT_TRUE(witness.waitForMessages(1));
    EXPECT_EQ(recorder.messages().size(), delivered);
    EXPECT_THROW(client->publish("a", "b", 1), ipc::IPCException);
    client->disconnect();  // idempotent
    other->disconnect();
}

TEST(Client, DisconnectWaitsForARunningCallback) {
    Bus bus;
    Recorder recorder;
    Gate gate;
    Gate returned;
    recorder.onMessage = [&](const std::string&, const std::string&) { gate.pass(); };
    const auto client = newClient("waits");
    client->subscribe("a", recorder);
    client->connect(bus.address());
    client->publish("a", "x", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    std::thread ending([&] {
        client->disconnect();
        returned.open();
    });
    EXPECT_FALSE(returned.pass(std::chrono::milliseconds(200)));
    gate.open();
    EXPECT_TRUE(returned.pass());
    ending.join();
}

TEST(Client, RefusesToDisconnectFromACallback) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("inside");
    Gate refused;
    recorder.onMessage = [&](const std::string&, const std::string&) {
        try {
            client->disconnect();
        } catch (const ipc::IPCException&) {
            refused.open();
        }
    };
    client->subscribe("a", recorder);
    client->connect(bus.address());
    client->publish("a", "x", 1);
    EXPECT_TRUE(refused.pass());
    client->disconnect();
}

TEST(Client, BlockedCallbackDelaysNothingElse) {
    NEEDS_REQUESTS();
    Bus bus;
    const EchoService service(bus.address());
    Recorder blocked;
    Recorder other;
    Gate gate;
    blocked.onMessage = [&gate](const std::string&, const std::string&) { gate.passBlocked(); };
    const auto client = newClient("blocked");
    client->watchPresence(statusTopic);
    client->subscribe("slow", blocked);
    client->subscribe("fast", other);
    client->connect(bus.address());
    ASSERT_TRUE(waitForService(*client));
    client->publish("slow", "x", 1);
    ASSERT_TRUE(blocked.waitForMessages(1));
    client->publish("fast", "y", 1);
    EXPECT_TRUE(other.waitForMessages(1));
    EXPECT_TRUE(blocked.waitForCompletions(2));
    EXPECT_EQ(ask(*client, "still there"), "re:still there");
    gate.open();
    client->disconnect();
}

TEST(Client, CallbackMayRequestAndPublish) {
    NEEDS_REQUESTS();
    Bus bus;
    const EchoService service(bus.address());
    Recorder recorder;
    const auto client = newClient("busy");
    client->watchPresence(statusTopic);
    recorder.onMessage = [&](const std::string& topic, const std::string&) {
        if (topic == "go") client->publish("result", ask(*client, "inside"), 1);
    };
    client->subscribe("go", recorder);
    client->subscribe("result", recorder);
    client->connect(bus.address());
    ASSERT_TRUE(waitForService(*client));
    client->publish("go", "", 1);
    ASSERT_TRUE(recorder.waitForMessages(2));
    EXPECT_EQ(recorder.contents()[1], "re:inside");
    client->disconnect();
}

TEST(Client, TransientClientsMayShareAName) {
    Bus bus;
    Recorder first;
    Recorder second;
    const auto one = newClient("tool", true);
    const auto two = newClient("tool", true);
    one->subscribe("a", first);
    two->subscribe("a", second);
    one->connect(bus.address());
    two->connect(bus.address());
    one->publish("a", "x", 1);
    EXPECT_TRUE(first.waitForMessages(1));
    EXPECT_TRUE(second.waitForMessages(1));
    one->disconnect();
    two->disconnect();
}

TEST(Client, MessagesPublishedBeforeTheEndArrive) {
    Bus bus;
    Recorder recorder;
    const auto listener = newClient("listener");
    listener->subscribe("last/words", recorder);
    listener->connect(bus.address());
    {
        const auto client = newClient("leaving", true);
        client->connect(bus.address());
        for (int i = 0; i < 200; ++i) client->publish("last/words", std::to_string(i), 1);
    }
    EXPECT_TRUE(recorder.waitForMessages(200));
    listener->disconnect();
}

}  // namespace
