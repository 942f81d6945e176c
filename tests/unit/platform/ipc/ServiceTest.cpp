#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "BusFixtures.h"
#include "Mqtt.h"
#include "fakes/Broker.h"
#include "fakes/LogCapture.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using fakes::Broker;

bool says(const fakes::LogCapture& log, const std::string& text) { return log.text().find(text) != std::string::npos; }

/// A handler that makes a large change of each request.
struct LargeChanges {
    inline static const std::string large = std::string(60000, 'x');

    std::atomic<size_t> handled{0};
    std::atomic<bool> last{false};  // the request "last" was among them

    ipc::IIPCService::Handler handler() {
        return [this](const std::vector<ipc::ServiceRequest>& requests) {
            std::vector<ipc::OutgoingMessage> messages;
            for (const auto& request : requests) {
                messages.push_back({"test-changes", large, "", 1});
                last = last || request.payload == "last";
            }
            handled += requests.size();
            return messages;
        };
    }
};

TEST(Service, AnnouncesItselfAndSaysGoodbye) {
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

TEST(Service, TakesRequestsInTheOrderInWhichTheyCame) {
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

TEST(Service, LetsTheSendersWaitWhenItCannotKeepUp) {
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

// Whoever waits for the broker's acknowledgements must go on reading: they come behind the requests.
class UnacknowledgedService : public testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(LargePayloadOrCorrelationData, UnacknowledgedService, testing::Bool());

TEST_P(UnacknowledgedService, HoldsBackAndThenDropsRequests) {
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
    ASSERT_TRUE(eventually([&] { return broker.isTaken() && says(log, "Requests are dropped"); }));
    const size_t before = changes.handled;
    EXPECT_GE(before, 70U);   // 4 MiB of changes may wait for the broker
    EXPECT_LE(before, 192U);  // and what was in hand by then
    broker.giveIn();
    const size_t kept = before + 1100;  // 64 MiB
    EXPECT_TRUE(eventually([&] { return changes.handled >= kept; }));
    EXPECT_LT(changes.handled, times);
    broker.send("test-service/ask", "last", 1);
    EXPECT_TRUE(eventually([&] { return changes.last.load(); }));
}

TEST(Service, CarriesOutARequestWithoutAResponseTopic) {
    Broker broker;
    Gate done;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        EXPECT_EQ(requests[0].topic, "test-service/ask");
        EXPECT_EQ(requests[0].payload, "just do it");
        EXPECT_EQ(requests[0].responseTopic, "");
        EXPECT_EQ(requests[0].correlationData, "");
        EXPECT_EQ(requests[0].qualityOfService, 1);
        done.open();
        return EchoService::echo(requests);  // an answer to nowhere does no harm
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

TEST(Service, OutlivesAnExceptionOfTheHandler) {
    Broker broker;
    EchoService service(broker.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "bad") throw std::runtime_error("no luck");
        return EchoService::echo(requests);
    });
    const auto client = newAsker(broker.address());
    EXPECT_THROW(ask(*client, "bad", std::chrono::milliseconds(100)), ipc::IPCTimeoutException);
    EXPECT_EQ(ask(*client, "good"), "re:good");
}

TEST(Service, ForgetsRequestsThatACutLeftBehind) {
    fakes::StubbornBroker broker;
    LargeChanges changes;
    EchoService service(broker.address(), changes.handler());
    broker.send("test-service/ask", LargeChanges::large, 600);  // of which most wait for acknowledgements
    ASSERT_TRUE(eventually([&] { return broker.isTaken() && changes.handled >= 70; }));
    broker.hangUp();
    broker.giveIn();
    broker.send("test-service/ask", "last", 1);
    EXPECT_TRUE(eventually([&] { return changes.last.load(); }));
    EXPECT_LE(changes.handled, 200U);
}

TEST(Service, AnswersWhatItHasInHandBeforeItStops) {
    Broker broker;
    std::future<void> stopped;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "stop") {
            stopped = std::async(std::launch::async, [&] { service.stop(); });
            for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // it is waiting by now, more often than not
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
    constexpr size_t many = 12000;  // more than may wait for the broker at a time
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

/// Publishes each request on "test-changes", deferrable, besides answering it.
std::vector<ipc::OutgoingMessage> echoAndChange(const std::vector<ipc::ServiceRequest>& requests) {
    std::vector<ipc::OutgoingMessage> messages = EchoService::echo(requests);
    for (const auto& request : requests) messages.push_back({"test-changes", request.payload, "", 1, true});
    return messages;
}

TEST(Service, KeepsTheOrderOfWhatItDefers) {
    constexpr size_t many = 3000;
    Broker broker;
    std::vector<std::string> order;
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) order.push_back(request.payload);
        return echoAndChange(requests);
    });
    Recorder recorder;
    const auto client = newAsker(broker.address(), "test-changes", &recorder);
    for (size_t i = 0; i < many; ++i) {
        const std::string payload = std::to_string(i);
        // Many at once, and one after the other.
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

TEST(Service, SendsWhatItDefersAMillisecondLater) {
    using Clock = std::chrono::steady_clock;
    Broker broker;
    std::atomic<Clock::time_point> handled;
    const EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        handled = Clock::now();
        return echoAndChange(requests);
    });
    Recorder recorder;
    const auto client = newAsker(broker.address(), "test-changes", &recorder);
    for (size_t count = 1; count <= 20; ++count) {
        ASSERT_TRUE(recorder.waitForMessages(count));
        const auto deferral = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - handled.load());
        EXPECT_GE(deferral.count(), 1000);
        EXPECT_LT(deferral.count(), 5000000) << "it waits for the upkeep of the connection";
        ask(*client, "change");
    }
    client->disconnect();
}

TEST(Service, SendsWhatItDeferredBeforeItStops) {
    constexpr size_t many = 20;
    Broker broker;
    EchoService service(broker.address(), echoAndChange);
    Recorder recorder;
    const auto client = newAsker(broker.address());
    client->subscribe("test-changes", recorder);
    for (size_t i = 0; i < many; ++i) ask(*client, "change");
    service.stop();
    EXPECT_TRUE(recorder.waitForMessages(many));
    client->disconnect();
}

/// A service that is cut off while it defers: of hundreds of requests it gets 64 at a time, is cut off, publishes their
/// changes, and at once makes those of the next.
class CutService {
 public:
    enum class Cut { connection, broker };

    explicit CutService(Cut cut) : cuts_(cut) {
        constexpr size_t many = 400;
        client_->subscribe("test-changes", changes_);
        client_->subscribe("test-service/ask", requests_);
        client_->publish("test-service/ask", "hold", 0);
        for (size_t i = 0; i < many; ++i) client_->publish("test-service/ask", std::to_string(i), 0);
        if (!requests_.waitForMessages(many + 1)) throw std::runtime_error("The broker has not got the requests");
        gate_.open();
        if (!cut_.pass()) throw std::runtime_error("There were no 64 requests at a time");
    }
    CutService(const CutService&) = delete;
    CutService& operator=(const CutService&) = delete;
    ~CutService() { client_->disconnect(); }

    void restore() { relay_.restore(); }
    void stop() { service_.stop(); }
    std::vector<std::string> handled() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return handled_;
    }
    /// The changes that came, without repetitions: what is not acknowledged at the cut comes twice.
    std::vector<std::string> changes() {
        std::vector<std::string> once;
        for (const std::string& each : changes_.contents()) {
            const bool isNew = each != "there?" && std::find(once.begin(), once.end(), each) == once.end();
            if (isNew) once.push_back(each);
        }
        return once;
    }

 private:
    std::vector<ipc::OutgoingMessage> handle(const std::vector<ipc::ServiceRequest>& requests) {
        if (requests[0].payload == "hold") gate_.pass();
        if (requests.size() == 64 && !isCut_) {
            if (cuts_ == Cut::broker) {
                broker_.stop();
            } else {
                relay_.cut();
            }
            isCut_ = true;
            cut_.open();
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& request : requests) {
            if (request.payload != "there?") handled_.push_back(request.payload);
        }
        return echoAndChange(requests);
    }

    const Cut cuts_;
    Broker broker_;
    fakes::Relay relay_{broker_.port()};
    Gate gate_;
    Gate cut_;
    bool isCut_ = false;  // the service's thread's own
    std::mutex mutex_;
    std::vector<std::string> handled_;  // guarded by mutex_
    EchoService service_{cuts_ == Cut::broker ? broker_.address() : relay_.address(),
                         [this](const auto& requests) { return handle(requests); }};
    const std::shared_ptr<ipc::IIPCClient> client_ = newAsker(broker_.address());
    Recorder changes_;
    Recorder requests_;
};

TEST(Service, WhatItDefersOutlivesACut) {
    CutService service(CutService::Cut::connection);
    service.restore();
    EXPECT_TRUE(eventually([&] { return service.changes() == service.handled(); }))
        << service.changes().size() << " changes of " << service.handled().size() << " requests";
}

TEST(Service, StopsAtOnceWhenTheBrokerIsGone) {
    const fakes::LogCapture log;
    CutService service(CutService::Cut::broker);
    ASSERT_TRUE(eventually([&] { return says(log, "Connection to the broker lost"); }));
    const auto begin = std::chrono::steady_clock::now();
    service.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500));
}

TEST(Service, IsNotCutOffForATopicTooDeep) {
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
    EXPECT_TRUE(says(log, "Not a message that can be published"));
    EXPECT_FALSE(says(log, "Connection to the broker lost"));
}

TEST(Service, DoesNotCarryOutARetainedRequestAgain) {
    Broker broker;
    // A plain MQTT client leaves a retained request behind before the service comes up.
    const ipc::Handle handle = ipc::newHandle("careless", true, nullptr);
    ASSERT_EQ(mosquitto_connect(handle.get(), "127.0.0.1", broker.port(), 60), MOSQ_ERR_SUCCESS);
    ASSERT_EQ(mosquitto_publish(handle.get(), nullptr, "test-service/ask", 7, "planted", 0, true), MOSQ_ERR_SUCCESS);
    Recorder witness;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->subscribe("test-service/ask", witness);
    client->connect(broker.address());
    ASSERT_TRUE(witness.waitForMessages(1));  // the broker has it
    std::atomic<int> planted{0};
    EchoService service(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        for (const auto& request : requests) planted += request.payload == "planted" ? 1 : 0;
        return EchoService::echo(requests);
    });
    ASSERT_TRUE(waitForService(*client));
    EXPECT_EQ(planted, 0);
    mosquitto_disconnect(handle.get());
}

TEST(Service, StartsWithoutABrokerAndServesWhenThereIsOne) {
    const fakes::LogCapture log;
    Broker broker;
    broker.stop();
    EchoService service(broker.address());
    EXPECT_TRUE(eventually([&] { return says(log, "Cannot connect to the broker at " + broker.address()); }));
    broker.start();
    EXPECT_NO_THROW(newAsker(broker.address()));
}

TEST(Service, ServesAgainAfterTheBrokerWasRestarted) {
    Broker broker;
    EchoService service(broker.address());
    newAsker(broker.address());
    broker.stop();
    broker.start();
    EXPECT_NO_THROW(newAsker(broker.address()));
}

TEST(Service, StopsWithoutABrokerToo) {
    Broker broker;
    const std::string address = broker.address();
    broker.stop();
    EchoService service(address);
    const auto begin = std::chrono::steady_clock::now();
    service.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(Service, ItsLastWillSpeaksWhenItIsCutOff) {
    Broker broker;
    fakes::Relay relay(broker.port());
    EchoService service(relay.address());
    Recorder recorder;
    const auto client = newClient("watcher");
    client->subscribe(statusTopic, recorder);
    client->connect(broker.address());
    ASSERT_TRUE(recorder.waitForMessages(1));
    relay.cut();
    ASSERT_TRUE(recorder.waitForMessages(2));
    relay.restore();
    ASSERT_TRUE(recorder.waitForMessages(3));
    EXPECT_EQ(recorder.contents(), (std::vector<std::string>{"online", "offline", "online"}));
    client->disconnect();
}

}  // namespace
