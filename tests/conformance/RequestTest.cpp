#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Bus.h"
#include "BusFixtures.h"
#include "Settings.h"

namespace {

using namespace bustest;
using conformance::Bus;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A connected client and a service that answers it.
struct ConnectedPair {
    explicit ConnectedPair(const std::string& address) : service(address), client(newAsker(address)) {}
    EchoService service;
    std::shared_ptr<ipc::IIPCClient> client;
};

TEST(Request, IsAnswered) {
    NEEDS_REQUESTS();
    Bus bus;
    const ConnectedPair pair(bus.address());
    EXPECT_EQ(ask(*pair.client, "hello"), "re:hello");
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    EXPECT_EQ(ask(*pair.client, all), "re:" + all);
    EXPECT_EQ(ask(*pair.client, ""), "re:");
}

TEST(Request, SeveralMayBeBegunBeforeTheFirstResponseIsAwaited) {
    NEEDS_REQUESTS();
    Bus bus;
    const ConnectedPair pair(bus.address());
    const auto begin = [&](const std::string& text) {
        return pair.client->beginRequest("test-service/ask", text, statusTopic, patience);
    };
    const auto first = begin("first");
    const auto second = begin("second");
    const auto third = begin("third");
    EXPECT_EQ(second->response(), "re:second");
    EXPECT_EQ(first->response(), "re:first");
    EXPECT_EQ(third->response(), "re:third");
}

TEST(Request, ABegunOneTimesOutWithoutAnAnswer) {
    NEEDS_REQUESTS();
    Bus bus;
    EchoService service(bus.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
        return requests.front().payload == "mute" ? std::vector<ipc::OutgoingMessage>() : EchoService::echo(requests);
    });
    const auto client = newAsker(bus.address());
    const auto begun = client->beginRequest("test-service/ask", "mute", statusTopic, milliseconds(50));
    const auto begin = steady_clock::now();
    EXPECT_THROW(begun->response(), ipc::IPCTimeoutException);
    EXPECT_LT(steady_clock::now() - begin, patience);
}

TEST(Request, ManyThreadsEachGetTheirOwnAnswer) {
    NEEDS_REQUESTS();
    Bus bus;
    const ConnectedPair pair(bus.address());
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
    NEEDS_REQUESTS();
    Bus bus;
    EchoService service(bus.address(), [](const std::vector<ipc::ServiceRequest>& requests) {
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
    const auto client = newAsker(bus.address());
    for (int i = 0; i < 50; ++i) EXPECT_EQ(ask(*client, std::to_string(i)), "re:" + std::to_string(i));
}

TEST(Request, TimesOutWithoutAnAnswer) {
    NEEDS_REQUESTS();
    Bus bus;
    EchoService mute(bus.address(),
                     [](const std::vector<ipc::ServiceRequest>&) { return std::vector<ipc::OutgoingMessage>(); });
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
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
    NEEDS_REQUESTS();
    Bus bus;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
    const auto begin = steady_clock::now();
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(900));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
    const auto again = steady_clock::now();
    EXPECT_THROW(ask(*client, "x"), ipc::IPCOfflineException);
    EXPECT_LT(steady_clock::now() - again, milliseconds(500));
}

TEST(Request, WaitsForAPresenceWithinTheFirstSecond) {
    NEEDS_REQUESTS();
    Bus bus;
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
    std::string answer;
    std::thread asking([&] {
        try {
            answer = ask(*client, "x");
        } catch (const ipc::IPCException& error) {
            answer = error.what();
        }
    });
    const EchoService service(bus.address());
    asking.join();
    EXPECT_EQ(answer, "re:x");
}

TEST(Request, FailsAtOnceWhenTheServiceIsOfflineAndWorksWhenItIsBack) {
    NEEDS_REQUESTS();
    Bus bus;
    ConnectedPair pair(bus.address());
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
    const EchoService back(bus.address());
    EXPECT_TRUE(waitForService(*pair.client));
}

TEST(Request, InFlightFailsAtOnceWhenTheServiceStops) {
    NEEDS_REQUESTS();
    Bus bus;
    Gate asked;
    auto service = std::make_unique<EchoService>(bus.address(), [&](const std::vector<ipc::ServiceRequest>&) {
        asked.open();
        return std::vector<ipc::OutgoingMessage>();
    });
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
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
    NEEDS_REQUESTS();
    Bus bus;
    const ConnectedPair pair(bus.address());
    pair.client->disconnect();
    EXPECT_EQ(ask(*pair.client, "goodbye"), "re:goodbye");
}

TEST(Request, NeedsAWatchedPresence) {
    NEEDS_REQUESTS();
    Bus bus;
    const auto client = newClient("asker");
    client->connect(bus.address());
    EXPECT_THROW(ask(*client, "x"), ipc::IPCException);
}

TEST(Request, InFlightFailsWhenTheClientIsDestroyed) {
    NEEDS_REQUESTS();
    Bus bus;
    Gate allAsked;
    size_t asked = 0;
    EchoService mute(bus.address(), [&](const std::vector<ipc::ServiceRequest>& requests) {
        asked += requests.size();
        if (asked == 4) allAsked.open();
        return std::vector<ipc::OutgoingMessage>();
    });
    auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(bus.address());
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
