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
