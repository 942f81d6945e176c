#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "BusFixtures.h"
#include "fakes/Broker.h"

namespace {

using namespace bustest;
using fakes::Broker;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A connected client and a service that answers it.
struct ConnectedPair {
    explicit ConnectedPair(const std::string& address) : service(address), client(newAsker(address)) {}
    EchoService service;
    std::shared_ptr<ipc::IIPCClient> client;
};

TEST(Request, IsAnswered) {
    Broker broker;
    const ConnectedPair pair(broker.address());
    EXPECT_EQ(ask(*pair.client, "hello"), "re:hello");
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    EXPECT_EQ(ask(*pair.client, all), "re:" + all);
    EXPECT_EQ(ask(*pair.client, ""), "re:");
}

class RequestSpeed : public testing::TestWithParam<const char*> {};

TEST_P(RequestSpeed, NoDelayedAcknowledgements) {
    // A notification with quality 1 after each answer provokes TCP's delayed acknowledgement of 40 ms: a thousand
    // requests would take 40 s.
    Broker broker(GetParam());
    EchoService service(broker.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        auto outgoing = EchoService::echo(requests);
        for (const auto& request : requests) outgoing.push_back({"test-changes/x", request.payload, "", 1});
        return outgoing;
    });
    Recorder recorder;
    const auto client = newAsker(broker.address(), "test-changes/#", &recorder);
    const auto begin = steady_clock::now();
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(ask(*client, std::to_string(i)), "re:" + std::to_string(i));
    const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    RecordProperty("milliseconds", static_cast<int>(took.count()));
    EXPECT_LT(took, milliseconds(5000));
    EXPECT_TRUE(recorder.waitForMessages(1000));
    client->disconnect();
}

INSTANTIATE_TEST_SUITE_P(Brokers, RequestSpeed, testing::Values("", "set_tcp_nodelay true\n"),
                         [](const auto& row) { return *row.param == '\0' ? "default" : "nodelay"; });

TEST(Request, ManyThreadsEachGetTheirOwnAnswer) {
    Broker broker;
    const ConnectedPair pair(broker.address());
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 100; ++i) {
                const std::string text = std::to_string(thread) + ":" + std::to_string(i);
                if (ask(*pair.client, text) == "re:" + text) ++right;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(right, 800);
}

TEST(Request, IgnoresForeignAnswers) {
    Broker broker;
    EchoService service(broker.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        std::vector<ipc::OutgoingMessage> outgoing;
        for (const auto& request : requests) {
            std::string other = request.correlationData;
            other[0] = static_cast<char>(other[0] ^ 1);
            for (const std::string& correlation : {std::string(), std::string(1000, 'x'), other}) {
                outgoing.push_back({request.responseTopic, "not yours", correlation, 0});
            }
            for (const char* answer : {"re:", "a second answer to "}) {
                outgoing.push_back({request.responseTopic, answer + request.payload, request.correlationData, 0});
            }
        }
        return outgoing;
    });
    const auto client = newAsker(broker.address());
    for (int i = 0; i < 50; ++i) EXPECT_EQ(ask(*client, std::to_string(i)), "re:" + std::to_string(i));
}

TEST(Request, TimesOutWithoutAnAnswer) {
    Broker broker;
    EchoService mute(broker.address(),
                     [](const std::vector<ipc::ServiceRequest>&) { return std::vector<ipc::OutgoingMessage>(); });
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(broker.address());
    ASSERT_TRUE(eventually([&] {
        try {
            ask(*client, "x", milliseconds(50));
        } catch (const ipc::IPCTimeoutException&) {
            return true;
        } catch (const ipc::IPCOfflineException&) {
        }
        return false;
    }));
}

TEST(Request, FailsAfterASecondWithoutAPresence) {
    Broker broker;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(broker.address());
    const auto begin = steady_clock::now();
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(900));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    const auto again = steady_clock::now();
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
    EXPECT_LT(steady_clock::now() - again, milliseconds(500));
}

TEST(Request, WaitsForAPresenceWithinTheFirstSecond) {
    Broker broker;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(broker.address());
    std::string answer;
    std::thread asking([&] {
        try {
            answer = ask(*client, "x");
        } catch (const ipc::IPCException& error) {
            answer = error.what();
        }
    });
    const EchoService service(broker.address());
    asking.join();
    EXPECT_EQ(answer, "re:x");
}

TEST(Request, FailsAtOnceWhenTheServiceIsOfflineAndWorksWhenItIsBack) {
    Broker broker;
    ConnectedPair pair(broker.address());
    pair.service.stop();
    ASSERT_TRUE(eventually([&] {
        try {
            ask(*pair.client, "x", milliseconds(100));
        } catch (const ipc::IPCOfflineException&) {
            return true;
        } catch (const ipc::IPCTimeoutException&) {
        }
        return false;
    }));
    const auto begin = steady_clock::now();
    EXPECT_THROW(ask(*pair.client, "x"), ipc::IPCOfflineException);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(500));
    const EchoService back(broker.address());
    EXPECT_TRUE(waitForService(*pair.client));
}

TEST(Request, InFlightFailsAtOnceWhenTheServiceStops) {
    Broker broker;
    Gate asked;
    auto service = std::make_unique<EchoService>(broker.address(), [&](const std::vector<ipc::ServiceRequest>&) {
        asked.open();
        return std::vector<ipc::OutgoingMessage>();
    });
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(broker.address());
    bool offline = false;
    std::thread asking([&] {
        try {
            ask(*client, "x");
        } catch (const ipc::IPCOfflineException&) {
            offline = true;
        } catch (const ipc::IPCException&) {
        }
    });
    ASSERT_TRUE(asked.pass());
    service->stop();
    const auto begin = steady_clock::now();
    asking.join();
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    EXPECT_TRUE(offline);
}

TEST(Request, StillWorksAfterDisconnect) {
    Broker broker;
    const ConnectedPair pair(broker.address());
    pair.client->disconnect();
    EXPECT_EQ(ask(*pair.client, "goodbye"), "re:goodbye");
}

TEST(Request, NeedsAWatchedPresence) {
    Broker broker;
    const auto client = newClient("asker");
    client->connect(broker.address());
    EXPECT_THROW(ask(*client, "x"), ipc::IPCException);
}

TEST(Request, InFlightFailsWhenTheClientIsDestroyed) {
    Broker broker;
    Gate allAsked;
    size_t asked = 0;
    EchoService mute(broker.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        asked += requests.size();
        if (asked == 4) allAsked.open();
        return std::vector<ipc::OutgoingMessage>();
    });
    auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(broker.address());
    std::atomic<int> offline{0};
    std::vector<std::thread> threads;
    ipc::IIPCClient& bare = *client;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            try {
                ask(bare, "x");
            } catch (const ipc::IPCOfflineException&) {
                ++offline;
            }
        });
    }
    ASSERT_TRUE(allAsked.pass());  // now all four are inside `request`
    client.reset();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(offline, 4);
}

}  // namespace
