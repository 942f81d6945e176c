// Requests and waits while a service goes offline and comes back, and once they are limited.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;
using conformance::Bus;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A client and a service that never answers; the service opens `asked` on each request.
struct SilentPair {
    explicit SilentPair(const std::string& address)
        : service(address, [this](const std::vector<ipc::ServiceRequest>&) {
              asked.open();
              return std::vector<ipc::OutgoingMessage>();
          }) {
        client->watchPresence(statusTopic);
        client->connect(address);
    }
    Gate asked;
    EchoService service;
    const std::shared_ptr<ipc::IIPCClient> client = newClient("asker");
};

/// Runs the call on its own thread and stores its result, or the exception as a word.
template <typename Call>
std::thread inBackground(std::string& outcome, Call call) {
    return std::thread([&outcome, call] {
        try {
            outcome = call();
        } catch (const ipc::IPCServiceLostException&) {
            outcome = "service lost";
        } catch (const ipc::IPCOfflineException&) {
            outcome = "offline";
        } catch (const ipc::IPCInterruptedException&) {
            outcome = "interrupted";
        } catch (const ipc::IPCTimeoutException&) {
            outcome = "timeout";
        }
    });
}

TEST(Outage, FailsARequestInFlightEvenIfTheServiceIsBackAtOnce) {
    NEEDS_REQUESTS();
    Bus bus;
    SilentPair pair(bus.address());
    std::string outcome;
    std::thread asking = inBackground(outcome, [&] { return ask(*pair.client, "x"); });
    ASSERT_TRUE(pair.asked.pass());
    const auto other = newClient("announcer");
    other->connect(bus.address());
    other->publish(statusTopic, "offline", 1);
    other->publish(statusTopic, "online", 1);
    asking.join();
    EXPECT_EQ(outcome, "service lost");
}

TEST(Outage, DeathOfTheBusInterruptsARequestInFlight) {
    NEEDS_REQUESTS();
    Bus bus;
    SilentPair pair(bus.address());
    std::string outcome;
    std::thread asking = inBackground(outcome, [&] { return ask(*pair.client, "x"); });
    ASSERT_TRUE(pair.asked.pass());
    const auto begin = steady_clock::now();
    bus.stop();
    asking.join();
    EXPECT_EQ(outcome, "interrupted");
    EXPECT_LT(steady_clock::now() - begin, patience / 2);
}

TEST(Outage, DoesNotFailARequestToAnotherService) {
    NEEDS_REQUESTS();
    Bus bus;
    SilentPair pair(bus.address());
    pair.client->disconnect();
    const auto client = newClient("watcher");
    client->watchPresence(statusTopic);
    client->watchPresence("other/status");
    Recorder recorder;
    client->subscribe("other/status", recorder);
    client->connect(bus.address());
    std::string outcome;
    std::thread asking = inBackground(outcome, [&] { return ask(*client, "x", milliseconds(300)); });
    ASSERT_TRUE(pair.asked.pass());
    client->publish("other/status", "offline", 1);
    EXPECT_TRUE(recorder.waitForMessages(1));
    asking.join();
    EXPECT_EQ(outcome, "timeout");
    client->disconnect();
}

TEST(Outage, IgnoresOtherPresencePayloads) {
    NEEDS_REQUESTS();
    Bus bus;
    const EchoService service(bus.address());
    Recorder recorder;
    const auto client = newAsker(bus.address(), statusTopic, &recorder);
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->publish(statusTopic, "", 1);
    client->publish(statusTopic, "garbage", 1);
    ASSERT_TRUE(recorder.waitForMessages(3));
    EXPECT_EQ(ask(*client, "x"), "re:x");
    client->disconnect();
}

TEST(Outage, WaitEndsWhenTheServiceIsBack) {
    NEEDS_REQUESTS();
    Bus bus;
    auto service = std::make_unique<EchoService>(bus.address());
    const auto client = newAsker(bus.address());
    EXPECT_TRUE(client->waitForService(statusTopic, milliseconds(0))) << "it is online";
    service.reset();
    ASSERT_TRUE(eventually([&] { return !client->waitForService(statusTopic, milliseconds(0)); }));
    std::string outcome;
    std::promise<void> begun;
    std::thread waiting = inBackground(outcome, [&] {
        begun.set_value();
        return client->waitForService(statusTopic, patience) ? "back" : "gone";
    });
    begun.get_future().wait();  // a service that is back before the wait needs none
    const EchoService again(bus.address());
    waiting.join();
    EXPECT_EQ(outcome, "back");
}

TEST(Outage, WaitTimesOut) {
    NEEDS_REQUESTS();
    Bus bus;
    auto service = std::make_unique<EchoService>(bus.address());
    const auto client = newAsker(bus.address());
    service.reset();
    ASSERT_TRUE(eventually([&] { return !client->waitForService(statusTopic, milliseconds(0)); }));
    EXPECT_FALSE(client->waitForService(statusTopic, milliseconds(1000)));
    const auto begin = steady_clock::now();
    EXPECT_FALSE(client->waitForService(statusTopic, milliseconds(1000)));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(1000))
        << "the wait must count from the outage, not from the call";
}

TEST(Outage, NoWaitForAServiceThatWasNeverOnline) {
    Bus bus;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
    const auto begin = steady_clock::now();
    EXPECT_FALSE(client->waitForService(statusTopic, patience));
    EXPECT_FALSE(client->waitForService("not/watched", patience));
    EXPECT_LT(steady_clock::now() - begin, patience / 2);
}

TEST(Outage, WaitSurvivesARestartOfTheBroker) {
    NEEDS_REQUESTS();
    Bus bus;
    const EchoService service(bus.address());
    Recorder recorder;
    const auto client = newAsker(bus.address(), "a", &recorder);
    bus.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    std::string outcome;
    std::thread waiting =
        inBackground(outcome, [&] { return client->waitForService(statusTopic, patience) ? "back" : "gone"; });
    bus.start();
    waiting.join();
    EXPECT_EQ(outcome, "back");
    client->disconnect();
}

TEST(Outage, NoWaitOnceRequestsAreLimited) {
    NEEDS_REQUESTS();
    Bus bus;
    auto service = std::make_unique<EchoService>(bus.address());
    const auto client = newAsker(bus.address());
    service.reset();
    ASSERT_TRUE(eventually([&] { return !client->waitForService(statusTopic, milliseconds(0)); }));
    std::string outcome;
    const auto begin = steady_clock::now();
    std::thread waiting =
        inBackground(outcome, [&] { return client->waitForService(statusTopic, patience) ? "back" : "gone"; });
    client->limitRequests(milliseconds(2000));
    waiting.join();
    EXPECT_EQ(outcome, "gone");
    EXPECT_LT(steady_clock::now() - begin, patience / 2);
}

TEST(LimitedRequests, LimitAppliesInFlightAndLater) {
    NEEDS_REQUESTS();
    Bus bus;
    SilentPair pair(bus.address());
    std::string outcome;
    std::thread asking = inBackground(outcome, [&] { return ask(*pair.client, "x"); });
    ASSERT_TRUE(pair.asked.pass());
    const auto begin = steady_clock::now();
    pair.client->limitRequests(milliseconds(100));
    asking.join();
    EXPECT_EQ(outcome, "timeout");
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
    EXPECT_THROW(ask(*pair.client, "x"), ipc::IPCTimeoutException);
    EXPECT_LT(steady_clock::now() - begin, patience / 2);
}

TEST(Answers, CountIncludesLateAnswers) {
    NEEDS_REQUESTS();
    Bus bus;
    Gate gate;
    EchoService slow(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests.front().payload == "slow") gate.pass();
        return EchoService::echo(requests);
    });
    const auto client = newAsker(bus.address());
    const auto before = client->responsesReceived();
    EXPECT_GT(before, 0U);
    EXPECT_THROW(ask(*client, "slow", milliseconds(50)), ipc::IPCTimeoutException);
    EXPECT_EQ(client->responsesReceived(), before);
    gate.open();
    EXPECT_TRUE(eventually([&] { return client->responsesReceived() == before + 1; }));
}

}  // namespace
