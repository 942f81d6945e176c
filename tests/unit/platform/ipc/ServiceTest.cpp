#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "BusFixtures.h"
#include "Mqtt.h"
#include "ServiceFixtures.h"
#include "fakes/Broker.h"
#include "fakes/LogCapture.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using fakes::Broker;

TEST(Service, PublishesOnlineAndOffline) {
    Broker broker;
    Recorder recorder;
    const auto client = newClient("watcher");
    client->subscribe(statusTopic, recorder);
    client->connect(broker.address());
    EchoService service(broker.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    service.stop();
    ASSERT_TRUE(recorder.waitForMessages(2));
    EXPECT_EQ(recorder.contents(), (std::vector<std::string>{"online", "offline"}));
    client->disconnect();
}

TEST(Service, HandlesRequestsInOrder) {
    Broker broker;
    Gate first;
    std::vector<std::string> order;
    Recorder recorder;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        first.pass();
        std::vector<ipc::OutgoingMessage> outgoing;
        for (const auto& request : requests) outgoing.push_back({"test-changes", request.payload, "", 1});
        return outgoing;
    });
    const auto client = newClient("sender");
    client->subscribe("test-changes", recorder);
    client->subscribe(statusTopic, recorder);
    client->connect(broker.address());
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
    Broker broker;
    Gate gate;
    Recorder recorder;
    std::atomic<size_t> handled{0};
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        gate.pass();
        handled += requests.size();
        return std::vector<ipc::OutgoingMessage>();
    });
    const auto client = newClient("flood");
    client->subscribe(statusTopic, recorder);
    client->connect(broker.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    const std::string large(size_t{64} * 1024, 'x');
    for (int i = 0; i < 700; ++i) client->publish("test-service/ask", large, 1);  // 44 MiB
    gate.open();
    EXPECT_TRUE(eventually([&] { return handled == 700; }));
    client->disconnect();
}

// A service that waits for acknowledgements must keep reading, as they arrive behind the requests.
class UnacknowledgedService : public testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(LargePayloadOrCorrelationData, UnacknowledgedService, testing::Bool());

TEST_P(UnacknowledgedService, StopsHandlingAndThenDropsRequests) {
    fakes::StubbornBroker broker;
    LargeChanges changes;
    const fakes::LogCapture log;
    EchoService service(broker.address(), changes.handler());
    constexpr size_t times = 1500;
    if (GetParam()) {
        broker.send("test-service/ask", LargeChanges::large, times);
    } else {
        broker.send("test-service/ask", "small", times, LargeChanges::large);
    }
    ASSERT_TRUE(eventually([&] { return broker.isTaken() && logContains(log, "Dropping requests"); }));
    const size_t before = changes.handled;
    EXPECT_GE(before, 70U);   // 4 MiB of unacknowledged changes are allowed
    EXPECT_LE(before, 192U);  // plus the requests handled meanwhile
    broker.giveIn();
    const size_t kept = before + 1100;  // 64 MiB
    EXPECT_TRUE(eventually([&] { return changes.handled >= kept; }));
    EXPECT_LT(changes.handled, times);
    broker.send("test-service/ask", "last", 1);
    EXPECT_TRUE(eventually([&] { return changes.last.load(); }));
}

TEST(Service, ExecutesARequestWithoutAResponseTopic) {
    Broker broker;
    Gate done;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
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
    client->connect(broker.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    client->publish("test-service/ask", "just do it", 1);
    EXPECT_TRUE(done.pass());
    client->disconnect();
}

TEST(Service, SurvivesAnExceptionOfTheHandler) {
    Broker broker;
    EchoService service(broker.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "bad") throw std::runtime_error("no luck");
        return EchoService::echo(requests);
    });
    const auto client = newAsker(broker.address());
    EXPECT_THROW(ask(*client, "bad", std::chrono::milliseconds(100)), ipc::IPCTimeoutException);
    EXPECT_EQ(ask(*client, "good"), "re:good");
}

TEST(Service, AnswersExecutedRequestsBeforeItStops) {
    Broker broker;
    std::future<void> stopped;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "stop") {
            stopped = std::async(std::launch::async, [&] { service.stop(); });
            for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // `stop` is usually waiting by now
        }
        return EchoService::echo(requests);
    });
    const auto client = newAsker(broker.address());
    std::string answer;
    EXPECT_NO_THROW(answer = ask(*client, "stop"));
    stopped.wait();
    EXPECT_EQ(answer, "re:stop");
}

TEST(Service, PublishesEveryChangeBeforeItStops) {
    constexpr size_t many = 12000;  // more than the broker's queue limit
    Broker broker;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        auto messages = EchoService::echo(requests);
        if (requests[0].payload == "change") {
            for (size_t i = 0; i < many; ++i) messages.push_back({"test-changes", std::to_string(i), "", 1});
        }
        return messages;
    });
    std::atomic<size_t> heard{0};
    Recorder recorder;
    recorder.onMessage = [&](const std::string&, const std::string&) { ++heard; };
    const auto client = newAsker(broker.address(), "test-changes", &recorder);
    EXPECT_EQ(ask(*client, "change"), "re:change");
    service.stop();
    EXPECT_TRUE(eventually([&] { return heard == many; }));
    client->disconnect();
}

TEST(Service, PublishesChangesInTheOrderOfTheRequests) {
    constexpr size_t many = 3000;
    Broker broker;
    std::vector<std::string> order;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) order.push_back(request.payload);
        return changeAndEcho(requests);
    });
    Recorder recorder;
    const auto client = newAsker(broker.address(), "test-changes", &recorder);
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

TEST(Service, SendsInListOrder) {
    fakes::StubbornBroker broker;
    EchoService service(broker.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        std::vector<ipc::OutgoingMessage> messages;
        for (size_t i = 0; i < requests.size(); ++i) {
            messages.push_back({"test-changes", "x", "", 1});
            messages.push_back({"test-answers", "x", "", 0});
        }
        return messages;
    });
    constexpr size_t times = 10;
    broker.send("test-service/ask", "x", times);
    std::vector<std::string> expected{statusTopic};
    for (size_t i = 0; i < times; ++i) expected.insert(expected.end(), {"test-changes", "test-answers"});
    EXPECT_TRUE(eventually([&] { return broker.published().size() >= expected.size(); }));
    EXPECT_EQ(broker.published(), expected);
}

// Beyond the receive maximum libmosquitto keeps messages with quality of service 1 back, and others overtake them.
TEST(Service, NeverSendsAnAnswerBeforeItsChange) {
    fakes::StubbornBroker broker(20);
    std::atomic<int> handled{0};
    EchoService service(broker.address(), [&handled](const std::vector<ipc::ServiceRequest>& requests) {
        std::vector<ipc::OutgoingMessage> messages;
        for (std::size_t i = 0; i < requests.size(); ++i) {
            const std::string number = std::to_string(++handled);
            messages.push_back({"change/" + number, "", "", 1});
            messages.push_back({"answer/" + number, "", "", 0});
        }
        return messages;
    });
    constexpr int sets = 200;
    broker.send("test-service/ask", "set", sets);
    ASSERT_TRUE(eventually([&] { return broker.owed() >= 20; }));
    broker.giveIn();
    const auto isAnswered = [&broker] {
        const auto topics = broker.published();
        return std::find(topics.begin(), topics.end(), "answer/" + std::to_string(sets)) != topics.end();
    };
    ASSERT_TRUE(eventually(isAnswered));
    const auto topics = broker.published();
    const auto placeOf = [&topics](const std::string& topic) { return std::find(topics.begin(), topics.end(), topic); };
    for (int set = 1; set <= sets; ++set) {
        const std::string number = std::to_string(set);
        EXPECT_LT(placeOf("change/" + number), placeOf("answer/" + number)) << number;
        EXPECT_NE(placeOf("answer/" + number), topics.end()) << number;
    }
}

TEST(Service, KeepsItsConnectionDespiteATopicWithTooManyLevels) {
    const fakes::LogCapture log;
    Broker broker;
    std::string deep = "test-answers";
    for (int level = 0; level < 201; ++level) deep += "/a";
    EchoService service(broker.address(), [&deep](const std::vector<ipc::ServiceRequest>& requests) {
        auto messages = EchoService::echo(requests);
        if (requests[0].payload == "deep") messages.insert(messages.begin(), {deep, "", "", 1});
        return messages;
    });
    const auto client = newAsker(broker.address());
    EXPECT_EQ(ask(*client, "deep"), "re:deep");
    EXPECT_EQ(ask(*client, "again"), "re:again");
    client->disconnect();
    service.stop();
    EXPECT_TRUE(logContains(log, "The topic is invalid or the message is too large"));
    EXPECT_FALSE(logContains(log, "Connection to the broker lost"));
}

TEST(Service, DoesNotExecuteARetainedRequestAgain) {
    Broker broker;
    // A plain MQTT client publishes a retained request before the service starts.
    const ipc::Handle handle = ipc::newHandle("careless", true, nullptr);
    ASSERT_EQ(mosquitto_connect(handle.get(), "127.0.0.1", broker.port(), 60), MOSQ_ERR_SUCCESS);
    ASSERT_EQ(mosquitto_publish(handle.get(), nullptr, "test-service/ask", 7, "planted", 0, true), MOSQ_ERR_SUCCESS);
    Recorder witness;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->subscribe("test-service/ask", witness);
    client->connect(broker.address());
    ASSERT_TRUE(witness.waitForMessages(1));  // the broker has the request
    std::atomic<int> planted{0};
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) planted += request.payload == "planted" ? 1 : 0;
        return EchoService::echo(requests);
    });
    ASSERT_TRUE(waitForService(*client));
    EXPECT_EQ(planted, 0);
    mosquitto_disconnect(handle.get());
}

}  // namespace
