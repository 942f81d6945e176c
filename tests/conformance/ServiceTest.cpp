#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;
using conformance::Bus;

TEST(Service, PublishesOnlineAndOffline) {
    NEEDS_REQUESTS();
    Bus bus;
    Recorder recorder;
    const auto client = newClient("watcher");
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    EchoService service(bus.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    service.stop();
    ASSERT_TRUE(recorder.waitForMessages(2));
    EXPECT_EQ(recorder.contents(), (std::vector<std::string>{"online", "offline"}));
    client->disconnect();
}

TEST(Service, DeathOfItsProcessIsReportedAsOffline) {
    NEEDS_REQUESTS();
    const Bus bus;
    Recorder recorder;
    const auto client = newClient("watcher");
    client->watchPresence(statusTopic);
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    conformance::Program peer("exec '" + conformance::settings().program + "' --serve '" + bus.address() + "'", "");
    peer.start();
    ASSERT_TRUE(recorder.waitForMessages(1));
    EXPECT_EQ(ask(*client, "x"), "re:x");
    peer.kill();
    ASSERT_TRUE(recorder.waitForMessages(2));
    EXPECT_EQ(recorder.contents(), (std::vector<std::string>{"online", "offline"}));
    Recorder late;
    client->subscribe(statusTopic, late);
    ASSERT_TRUE(late.waitForMessages(1)) << "it is not retained";
    EXPECT_EQ(late.contents()[0], "offline");
    client->disconnect();
}

TEST(Service, RequestsHaveAResponseTopicAndCorrelationData) {
    NEEDS_REQUESTS();
    const Bus bus;
    std::atomic<bool> complete{true};
    const EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) {
            if (request.responseTopic.empty() || request.correlationData.empty()) complete = false;
        }
        return EchoService::echo(requests);
    });
    const auto client = newAsker(bus.address());
    EXPECT_EQ(ask(*client, "x"), "re:x");
    EXPECT_TRUE(complete) << "a request without a response topic or correlation data";
}

TEST(Service, HandlerGetsAtMost64Requests) {
    NEEDS_REQUESTS();
    const Bus bus;
    Gate gate;
    std::atomic<std::size_t> largest{0};
    std::atomic<std::size_t> handled{0};
    const EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        gate.pass();
        largest = std::max(largest.load(), requests.size());
        handled += requests.size();
        return std::vector<ipc::OutgoingMessage>();
    });
    Recorder recorder;
    const auto client = newClient("sender");
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    for (int i = 0; i < 500; ++i) client->publish("test-service/ask", "x", 1);
    ASSERT_TRUE(recorder.waitForCompletions(500));
    gate.open();
    EXPECT_TRUE(eventually([&] { return handled == 500U; }));
    EXPECT_LE(largest, 64U);
    client->disconnect();
}

TEST(Service, HandlesRequestsInOrder) {
    NEEDS_REQUESTS();
    Bus bus;
    Gate first;
    std::vector<std::string> order;
    Recorder recorder;
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        first.pass();
        std::vector<ipc::OutgoingMessage> outgoing;
        for (const auto& request : requests) outgoing.push_back({"test-changes", request.payload, "", 1});
        return outgoing;
    });
    const auto client = newClient("sender");
    client->subscribe("test-changes", recorder);
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    ASSERT_TRUE(recorder.waitForMessages(1));  // online
    std::vector<std::string> expected{"online"};
    for (int i = 0; i < 3000; ++i) {
        client->publish("test-service/ask", std::to_string(i), 1);
        expected.push_back(std::to_string(i));
    }
    first.open();
    ASSERT_TRUE(recorder.waitForMessages(3001));
    EXPECT_EQ(recorder.contents(), expected);
    client->disconnect();
}

TEST(Service, SlowHandlerMakesSendersWait) {
    NEEDS_REQUESTS();
    Bus bus;
    Gate gate;
    Recorder recorder;
    std::atomic<size_t> handled{0};
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        gate.pass();
        handled += requests.size();
        return std::vector<ipc::OutgoingMessage>();
    });
    const auto client = newClient("flood");
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    const std::string large(size_t{64} * 1024, 'x');
    for (int i = 0; i < 700; ++i) client->publish("test-service/ask", large, 1);  // 44 MiB
    gate.open();
    EXPECT_TRUE(eventually([&] { return handled == 700; }));
    client->disconnect();
}

TEST(Service, ExecutesARequestWithoutAResponseTopic) {
    NEEDS_REQUESTS();
    Bus bus;
    Gate done;
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        EXPECT_EQ(requests[0].topic, "test-service/ask");
        EXPECT_EQ(requests[0].payload, "just do it");
        EXPECT_EQ(requests[0].responseTopic, "");
        EXPECT_EQ(requests[0].correlationData, "");
        EXPECT_EQ(requests[0].qualityOfService, 1);
        done.open();
        return EchoService::echo(requests);  // its answer has no topic and must be ignored
    });
    Recorder recorder;
    const auto client = newClient("sender");
    client->watchPresence(statusTopic);
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->publish("test-service/ask", "just do it", 1);
    EXPECT_TRUE(done.pass());
    client->disconnect();
}

TEST(Service, SurvivesAnExceptionOfTheHandler) {
    NEEDS_REQUESTS();
    Bus bus;
    EchoService service(bus.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "bad") throw std::runtime_error("no luck");
        return EchoService::echo(requests);
    });
    const auto client = newAsker(bus.address());
    EXPECT_THROW(ask(*client, "bad", std::chrono::milliseconds(100)), ipc::IPCTimeoutException);
    EXPECT_EQ(ask(*client, "good"), "re:good");
}

TEST(Service, AnswersExecutedRequestsBeforeItStops) {
    NEEDS_REQUESTS();
    Bus bus;
    std::future<void> stopped;
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "stop") {
            stopped = std::async(std::launch::async, [&] { service.stop(); });
            for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // `stop` is usually waiting by now
        }
        return EchoService::echo(requests);
    });
    const auto client = newAsker(bus.address());
    std::string answer;
    EXPECT_NO_THROW(answer = ask(*client, "stop"));
    stopped.wait();
    EXPECT_EQ(answer, "re:stop");
}

TEST(Service, PublishesEveryChangeBeforeItStops) {
    NEEDS_REQUESTS();
    constexpr size_t many = 12000;  // more than the broker's queue limit
    Bus bus;
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        auto messages = EchoService::echo(requests);
        if (requests[0].payload == "change") {
            for (size_t i = 0; i < many; ++i) messages.push_back({"test-changes", std::to_string(i), "", 1});
        }
        return messages;
    });
    std::atomic<size_t> heard{0};
    Recorder recorder;
    recorder.onMessage = [&](const std::string&, const std::string&) { ++heard; };
    const auto client = newAsker(bus.address(), "test-changes", &recorder);
    EXPECT_EQ(ask(*client, "change"), "re:change");
    service.stop();
    EXPECT_TRUE(eventually([&] { return heard == many; }));
    client->disconnect();
}

TEST(Service, PublishesChangesInTheOrderOfTheRequests) {
    NEEDS_REQUESTS();
    constexpr size_t many = 3000;
    Bus bus;
    std::vector<std::string> order;
    EchoService service(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) order.push_back(request.payload);
        return changeAndEcho(requests);
    });
    Recorder recorder;
    const auto client = newAsker(bus.address(), "test-changes", &recorder);
    for (size_t i = 0; i < many; ++i) {
        const std::string payload = std::to_string(i);
        // Alternate between concurrent and sequential requests.
        if (i % 1000 < 500) {
            client->publish("test-service/ask", payload, 1);
        } else {
            ASSERT_EQ(ask(*client, payload), "re:" + payload);
        }
    }
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(recorder.waitForMessages(many + 1));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    service.stop();
    ASSERT_TRUE(recorder.waitForMessages(order.size()));
    client->disconnect();
    EXPECT_EQ(recorder.contents(), order);
}

TEST(Service, StartsWithoutABrokerAndServesWhenThereIsOne) {
    NEEDS_REQUESTS();
    Bus bus;
    bus.stop();
    EchoService service(bus.address());
    bus.start();
    EXPECT_NO_THROW(newAsker(bus.address()));
}

TEST(Service, ServesAgainAfterTheBrokerWasRestarted) {
    NEEDS_REQUESTS();
    Bus bus;
    EchoService service(bus.address());
    newAsker(bus.address());
    bus.stop();
    bus.start();
    EXPECT_NO_THROW(newAsker(bus.address()));
}

TEST(Service, StopsWithoutABroker) {
    NEEDS_REQUESTS();
    Bus bus;
    const std::string address = bus.address();
    bus.stop();
    EchoService service(address);
    const auto begin = std::chrono::steady_clock::now();
    service.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(Service, ConnectionLossPublishesTheLastWill) {
    NEEDS_REQUESTS();
    NEEDS_TCP();
    Bus bus;
    fakes::Relay relay(Bus::port());
    EchoService service(relay.address());
    Recorder recorder;
    const auto client = newClient("watcher");
    client->subscribe(statusTopic, recorder);
    client->connect(bus.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    relay.cut();
    ASSERT_TRUE(recorder.waitForMessages(2));
    relay.restore();
    ASSERT_TRUE(recorder.waitForMessages(3));
    EXPECT_EQ(recorder.contents(), (std::vector<std::string>{"online", "offline", "online"}));
    client->disconnect();
}

/// What a bus service tells its supervisor.
struct Supervisor {
    std::atomic<int> online{0};
    std::atomic<int> alive{0};
    std::atomic<std::thread::id> thread{};  // of the last report that the service is alive

    ipc::ServiceEvents events() {
        return {[this] { ++online; },
                [this] {
                    thread = std::this_thread::get_id();
                    ++alive;
                }};
    }
};

// A handler that hangs must silence the reports, so they must not come from another thread.
TEST(ServiceEvents, AliveIsReportedByTheThreadThatHandlesRequests) {
    NEEDS_REQUESTS();
    const Bus bus;
    Supervisor supervisor;
    std::atomic<std::thread::id> handling{};
    const auto service = conformance::busLibrary().service("test-service", supervisor.events());
    service->start(bus.address(), statusTopic, {"test-service/ask"}, [&](const auto& requests) {
        handling = std::this_thread::get_id();
        return EchoService::echo(requests);
    });
    const auto client = newAsker(bus.address());
    const int before = supervisor.alive;
    EXPECT_EQ(ask(*client, "x"), "re:x");
    EXPECT_TRUE(eventually([&] { return supervisor.alive > before; }));
    EXPECT_EQ(supervisor.thread.load(), handling.load());
    client->disconnect();
}

TEST(ServiceEvents, AliveIsReportedWithoutABroker) {
    NEEDS_REQUESTS();
    Bus bus;
    const std::string address = bus.address();
    bus.stop();
    Supervisor supervisor;
    const auto service = conformance::busLibrary().service("test-service", supervisor.events());
    service->start(address, statusTopic, {"test-service/ask"}, EchoService::echo);
    EXPECT_TRUE(eventually([&] { return supervisor.alive >= 3; }));
    EXPECT_EQ(supervisor.online, 0);
}

}  // namespace
