#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;
using conformance::Bus;
using fakes::Relay;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(Reconnection, ReportsTheLossOncePerCallbackObject) {
    Bus bus;
    Recorder recorder;
    Recorder other;
    const auto client = newClient("loser");
    client->subscribe("a", recorder);
    client->subscribe("b", recorder);
    client->subscribe("c", other);
    client->connect(bus.address());
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    ASSERT_TRUE(other.waitForLosses(1));
    bus.start();
    client->publish("a", "x", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    EXPECT_EQ(recorder.losses().size(), 1U);
    EXPECT_EQ(other.losses().size(), 1U);
    bus.stop();
    EXPECT_TRUE(recorder.waitForLosses(2));
    client->disconnect();
}

TEST(Reconnection, SubscribesAgainAfterTheBrokerWasRestarted) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("faithful");
    client->subscribe("news/#", recorder);
    client->connect(bus.address());
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    bus.start();
    const auto other = newClient("reporter");
    other->connect(bus.address());
    // The restarted broker has no subscription until the client is back, so publish repeatedly.
    ASSERT_TRUE(eventually([&] {
        other->publish("news/now", "x", 1);
        return !recorder.messages().empty();
    }));
    client->disconnect();
    other->disconnect();
}

TEST(Reconnection, SendsMessagesPublishedMeanwhileOnceAndInOrder) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("writer");
    client->subscribe("diary", recorder);
    client->connect(bus.address());
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    std::vector<std::string> expected;
    for (int i = 0; i < 500; ++i) {
        client->publish("diary", std::to_string(i), 1);
        expected.push_back(std::to_string(i));
    }
    bus.start();
    ASSERT_TRUE(recorder.waitForCompletions(500));
    ASSERT_TRUE(recorder.waitForMessages(500));
    EXPECT_EQ(recorder.contents(), expected);
    client->disconnect();
}

TEST(Reconnection, DropsQualityZeroPublishedMeanwhile) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("writer");
    client->subscribe("diary", recorder);
    client->connect(bus.address());
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    for (int i = 0; i < 20; ++i) client->publish("diary", "lost", 0);
    client->publish("diary", "kept", 1);
    bus.start();
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->publish("diary", "end", 1);
    ASSERT_TRUE(recorder.waitForMessages(2));
    EXPECT_EQ(recorder.contents(), (std::vector<std::string>{"kept", "end"}));
    client->disconnect();
}

TEST(Reconnection, LosesNoPublishedMessage) {
    NEEDS_TCP();
    Bus bus;
    Relay relay(Bus::port());
    Recorder recorder;
    const auto reader = newClient("reader");
    reader->subscribe("diary", recorder);
    reader->connect(bus.address());
    const auto client = newClient("writer");
    client->connect(relay.address());
    for (int i = 0; i < 2000; ++i) {
        client->publish("diary", std::to_string(i), 1);
        if (i == 1000) {
            relay.cut();
            relay.restore();
        }
    }
    // At least once: a message whose acknowledgement was lost is delivered twice.
    ASSERT_TRUE(eventually([&] {
        const auto contents = recorder.contents();
        return std::find(contents.begin(), contents.end(), "1999") != contents.end();
    }));
    std::vector<bool> seen(2000);
    for (const auto& content : recorder.contents()) seen[std::stoul(content)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), false), 0);
    reader->disconnect();
}

TEST(Reconnection, DeliversMessagesPublishedMeanwhileByOthers) {
    NEEDS_TCP();
    Bus bus;
    Relay relay(Bus::port());
    Recorder recorder;
    Recorder overlapping;
    const auto client = newClient("sleeper");
    client->subscribe("prop/#", recorder);
    client->subscribe("prop/a", overlapping);
    client->connect(relay.address());
    const auto other = newClient("writer");
    Recorder witness;
    other->subscribe("prop/#", witness);
    other->connect(bus.address());
    relay.cut();
    ASSERT_TRUE(recorder.waitForLosses(1));
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i) {
        other->publish("prop/a", std::to_string(i), 1);
        expected.push_back(std::to_string(i));
    }
    ASSERT_TRUE(witness.waitForMessages(100));  // the broker has them all
    relay.restore();
    ASSERT_TRUE(recorder.waitForMessages(100));
    ASSERT_TRUE(overlapping.waitForMessages(100));
    EXPECT_EQ(recorder.contents(), expected);
    EXPECT_EQ(overlapping.contents(), expected);
    client->disconnect();
    other->disconnect();
}

TEST(Reconnection, NewProcessStartsClean) {
    NEEDS_TCP();
    Bus bus;
    Relay relay(Bus::port());
    Recorder gone;
    auto first = newClient("phone");
    first->subscribe("prop/#", gone);
    first->connect(relay.address());
    relay.cut();
    ASSERT_TRUE(gone.waitForLosses(1));
    first->disconnect();
    first.reset();
    const auto other = newClient("writer");
    Recorder witness;
    other->subscribe("prop/#", witness);
    other->connect(bus.address());
    other->publish("prop/a", "stale", 1);
    ASSERT_TRUE(witness.waitForMessages(1));
    relay.restore();
    Recorder recorder;
    const auto second = newClient("phone");
    second->subscribe("prop/#", recorder);
    second->connect(relay.address());
    other->publish("prop/a", "fresh", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    EXPECT_EQ(recorder.contents()[0], "fresh");
    second->disconnect();
    other->disconnect();
}

TEST(Reconnection, RequestsWorkAfterIt) {
    NEEDS_REQUESTS();
    Bus bus;
    Recorder recorder;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->subscribe("a", recorder);
    client->connect(bus.address());
    const EchoService service(bus.address());
    ASSERT_TRUE(waitForService(*client));
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    bus.start();
    EXPECT_TRUE(waitForService(*client));
    client->disconnect();
}

TEST(Reconnection, RequestWaitsForTheReconnection) {
    NEEDS_REQUESTS();
    NEEDS_TCP();
    Bus bus;
    Relay relay(Bus::port());
    const EchoService service(bus.address());
    Recorder recorder;
    const auto client = newAsker(relay.address(), "a", &recorder);
    relay.cut();
    ASSERT_TRUE(recorder.waitForLosses(1));
    std::string answer;
    std::thread asking([&] {
        try {
            answer = ask(*client, "patiently");
        } catch (const ipc::IPCException& error) {
            answer = error.what();
        }
    });
    relay.restore();
    asking.join();
    EXPECT_EQ(answer, "re:patiently");
    client->disconnect();
}

TEST(Reconnection, DoesNotResendARequest) {
    NEEDS_REQUESTS();
    NEEDS_TCP();
    Bus bus;
    Relay relay(Bus::port());
    std::atomic<int> executed{0};
    Gate asked;
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) {
            if (request.payload != "once") continue;
            ++executed;
            relay.cut();  // the answer is lost
            asked.open();
        }
        return EchoService::echo(requests);
    });
    Recorder recorder;
    const auto client = newAsker(relay.address(), "a", &recorder);
    std::atomic<bool> timedOut{false};
    std::thread asking([&] {
        try {
            ask(*client, "once", milliseconds(3000));
        } catch (const ipc::IPCTimeoutException&) {
            timedOut = true;
        } catch (const ipc::IPCException&) {
        }
    });
    ASSERT_TRUE(asked.pass());
    ASSERT_TRUE(recorder.waitForLosses(1));
    relay.restore();
    EXPECT_TRUE(waitForService(*client));
    asking.join();
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(executed, 1);
    client->disconnect();
}

TEST(Reconnection, RequestsFailAtOnceWhenTheBrokerStaysAway) {
    NEEDS_REQUESTS();
    Bus bus;
    const EchoService service(bus.address());
    Recorder recorder;
    const auto client = newAsker(bus.address(), "news", &recorder);
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    const auto begin = steady_clock::now();
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(8000));
    const auto again = steady_clock::now();
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
    EXPECT_LT(steady_clock::now() - again, milliseconds(500));
    client->disconnect();
}

TEST(Reconnection, RefusesTooManyMessagesInsteadOfDroppingThem) {
    Bus bus;
    Recorder recorder;
    const auto client = newClient("flood");
    client->subscribe("a", recorder);
    client->connect(bus.address());
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    size_t accepted = 0;
    try {
        for (; accepted < 20000; ++accepted) client->publish("a", std::to_string(accepted), 1);
    } catch (const ipc::IPCException&) {
    }
    EXPECT_EQ(accepted, 10000U);
    bus.start();
    ASSERT_TRUE(recorder.waitForMessages(accepted));
    client->disconnect();
}

TEST(Reconnection, ClientStopsInTimeWhileTheBrokerIsFrozen) {
    NEEDS_FREEZING();
    Bus bus;
    auto client = newClient("unlucky");
    Recorder recorder;
    client->subscribe("a", recorder);
    client->connect(bus.address());
    bus.freeze();
    client->publish("a", "x", 1);
    const auto begin = steady_clock::now();
    client->disconnect();
    client.reset();
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    bus.thaw();
}

}  // namespace
