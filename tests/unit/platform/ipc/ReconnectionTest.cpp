#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "BusFixtures.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;
using fakes::Broker;
using fakes::Relay;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(Reconnection, ReportsTheLossOncePerCallbackObject) {
    Broker broker;
    Recorder recorder;
    Recorder other;
    const auto client = newClient("loser");
    client->subscribe("a", recorder);
    client->subscribe("b", recorder);
    client->subscribe("c", other);
    client->connect(broker.address());
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    ASSERT_TRUE(other.waitForLosses(1));
    broker.start();
    client->publish("a", "x", 1);
    ASSERT_TRUE(recorder.waitForMessages(1));
    broker.stop();
    EXPECT_TRUE(recorder.waitForLosses(2));
    client->disconnect();
}

TEST(Reconnection, SubscribesAgainAfterTheBrokerWasRestarted) {
    Broker broker;
    Recorder recorder;
    const auto client = newClient("faithful");
    client->subscribe("news/#", recorder);
    client->connect(broker.address());
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    broker.start();
    const auto other = newClient("reporter");
    other->connect(broker.address());
    // The restarted broker has no subscription until the client is back, so publish repeatedly.
    ASSERT_TRUE(eventually([&] {
        other->publish("news/now", "x", 1);
        return !recorder.messages().empty();
    }));
    client->disconnect();
    other->disconnect();
}

TEST(Reconnection, SendsMessagesPublishedMeanwhileOnceAndInOrder) {
    Broker broker;
    Recorder recorder;
    const auto client = newClient("writer");
    client->subscribe("diary", recorder);
    client->connect(broker.address());
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    std::vector<std::string> expected;
    for (int i = 0; i < 500; ++i) {
        client->publish("diary", std::to_string(i), 1);
        expected.push_back(std::to_string(i));
    }
    broker.start();
    ASSERT_TRUE(recorder.waitForCompletions(500));
    ASSERT_TRUE(recorder.waitForMessages(500));
    EXPECT_EQ(recorder.contents(), expected);
    client->disconnect();
}

TEST(Reconnection, LosesNoPublishedMessage) {
    Broker broker;
    Relay relay(broker.port());
    Recorder recorder;
    const auto reader = newClient("reader");
    reader->subscribe("diary", recorder);
    reader->connect(broker.address());
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
    Broker broker;
    Relay relay(broker.port());
    Recorder recorder;
    Recorder overlapping;
    const auto client = newClient("sleeper");
    client->subscribe("prop/#", recorder);
    client->subscribe("prop/a", overlapping);
    client->connect(relay.address());
    const auto other = newClient("writer");
    Recorder witness;
    other->subscribe("prop/#", witness);
    other->connect(broker.address());
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
    Broker broker;
    Relay relay(broker.port());
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
    other->connect(broker.address());
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
    Broker broker;
    Recorder recorder;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->subscribe("a", recorder);
    client->connect(broker.address());
    const EchoService service(broker.address());
    ASSERT_TRUE(waitForService(*client));
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    broker.start();
    EXPECT_TRUE(waitForService(*client));
    client->disconnect();
}

TEST(Reconnection, RequestWaitsForTheReconnection) {
    Broker broker;
    Relay relay(broker.port());
    const EchoService service(broker.address());
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
    Broker broker;
    Relay relay(broker.port());
    std::atomic<int> executed{0};
    Gate asked;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
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
    Broker broker;
    const EchoService service(broker.address());
    Recorder recorder;
    const auto client = newAsker(broker.address(), "news", &recorder);
    broker.stop();
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
    Broker broker;
    Recorder recorder;
    const auto client = newClient("flood");
    client->subscribe("a", recorder);
    client->connect(broker.address());
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    size_t accepted = 0;
    try {
        for (; accepted < 20000; ++accepted) client->publish("a", std::to_string(accepted), 1);
    } catch (const ipc::IPCException&) {
    }
    EXPECT_EQ(accepted, 10000U);
    broker.start();
    ASSERT_TRUE(recorder.waitForMessages(accepted));
    client->disconnect();
}

TEST(Reconnection, ClientStopsInTimeWhileTheBrokerIsFrozen) {
    Broker broker;
    auto client = newClient("unlucky");
    Recorder recorder;
    client->subscribe("a", recorder);
    client->connect(broker.address());
    broker.freeze();
    client->publish("a", "x", 1);
    const auto begin = steady_clock::now();
    client->disconnect();
    client.reset();
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    broker.thaw();
}

}  // namespace
