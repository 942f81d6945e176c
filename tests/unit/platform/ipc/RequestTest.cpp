#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BusFixtures.h"
#include "fakes/Broker.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using fakes::Broker;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

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

// A broker that does not read, so that nothing leaves the client but what fits into the socket.
TEST(RequestOnABusyConnection, IsNotCrowdedOutByMessagesThatMayBeLost) {
    Broker broker;
    EchoService service(broker.address());
    const auto client = newAsker(broker.address());
    ASSERT_EQ(ask(*client, "before"), "re:before");
    broker.freeze();
    const std::string payload(1000, 'p');
    for (int i = 0; i < 20000; ++i) EXPECT_NO_THROW(client->publish("progress", payload, 0)) << i;
    EXPECT_THROW(ask(*client, "accepted", milliseconds(50)), ipc::IPCTimeoutException);
    broker.thaw();
    EXPECT_EQ(ask(*client, "after"), "re:after");
    client->disconnect();
}

/// A client that counts what it sends to a broker that answers no request.
class MessagesThatCanWait : public testing::Test {
 protected:
    void SetUp() override {
        client_->watchPresence(statusTopic);
        client_->connect(broker_.address());
        broker_.send(statusTopic, "online", 1);
        ASSERT_TRUE(eventually([&] { return client_->waitForService(statusTopic, patience); }));
    }
    void TearDown() override { client_->disconnect(); }

    std::unique_ptr<ipc::IPCRequest> begin() {
        return client_->beginRequest("test-service/ask", "begun", statusTopic, patience);
    }
    void askInVain() { EXPECT_THROW(ask(*client_, "plain", milliseconds(200)), ipc::IPCTimeoutException); }

    /// Whether `send`, which sends so many messages, at some time does so in one segment. The network thread sends what
    /// is held back whenever it has read something, such as the presence.
    bool fitInOneSegment(std::size_t count, const std::function<void()>& send) {
        return eventually([&] {
            const int before = broker_.segments();
            const std::size_t expected = broker_.published().size() + count;
            send();
            EXPECT_TRUE(eventually([&] { return broker_.published().size() == expected; }));
            return broker_.segments() - before == 1;
        });
    }

    fakes::StubbornBroker broker_;
    const std::shared_ptr<ipc::IIPCClient> client_ = newClient("asker");
};

TEST_F(MessagesThatCanWait, BegunRequestsLeaveInOneSegmentWithTheNext) {
    EXPECT_TRUE(fitInOneSegment(4, [&] {
        const auto first = begin();
        const auto second = begin();
        const auto third = begin();
        askInVain();
    }));
}

TEST_F(MessagesThatCanWait, MessagesLeaveInOneSegmentWithTheNextRequest) {
    EXPECT_TRUE(fitInOneSegment(3, [&] {
        client_->publishSoon("progress", "1");
        client_->publishSoon("progress", "2");
        askInVain();
    }));
}

TEST_F(MessagesThatCanWait, HoldNoOtherMessageBack) {
    const auto leavesAtOnce = [&] {
        const std::size_t expected = broker_.published().size() + 2;
        client_->publishSoon("progress", "1");
        const auto begin = steady_clock::now();
        client_->publish("news", "urgent", 0);
        EXPECT_TRUE(eventually([&] { return broker_.published().size() == expected; }));
        return steady_clock::now() - begin < milliseconds(100);  // the system holds data back for 200
    };
    EXPECT_TRUE(eventually(leavesAtOnce));
}

TEST(SubscriberOfEverything, GetsResponsesAndPresencesOnce) {
    Broker broker;
    EchoService service(broker.address());
    Recorder all;
    const auto client = newAsker(broker.address(), "#", &all);
    ASSERT_EQ(ask(*client, "x"), "re:x");
    client->publish("last", "the last one", 1);
    const auto count = [&all](const std::string& content) {
        const std::vector<std::string> contents = all.contents();
        return std::count(contents.begin(), contents.end(), content);
    };
    ASSERT_TRUE(eventually([&] { return count("the last one") == 1; }));
    EXPECT_EQ(count("re:x"), 1);
    EXPECT_EQ(count("online"), 1);
    client->disconnect();
}

// A caller reads while it waits for its response, so messages of others arrive on its thread.

TEST(ReadingCaller, DeliversMessagesOfOthers) {
    Broker broker;
    Gate answered;
    EchoService service(broker.address(), [&answered](const auto& requests) {
        if (requests.front().payload == "held") answered.passBlocked();
        return EchoService::echo(requests);
    });
    Recorder recorder;
    const auto client = newAsker(broker.address(), "news", &recorder);
    const auto other = newClient("other");
    other->connect(broker.address());
    std::thread caller([&] { EXPECT_EQ(ask(*client, "held", 4 * patience), "re:held"); });
    for (size_t count = 1; count <= 100; ++count) {
        other->publish("news", std::to_string(count), 1);
        if (!recorder.waitForMessages(count)) {
            ADD_FAILURE() << "message " << count << " is late";
            break;
        }
    }
    answered.open();
    caller.join();
    client->disconnect();
}

TEST(ReadingCaller, LeavesReadingToTheNetworkThreadAfterwards) {
    Broker broker;
    EchoService service(broker.address());
    Recorder recorder;
    const auto client = newAsker(broker.address(), "news", &recorder);
    const auto other = newClient("other");
    other->connect(broker.address());
    for (size_t count = 1; count <= 100; ++count) {
        ASSERT_EQ(ask(*client, "x"), "re:x");
        other->publish("news", std::to_string(count), 1);
        ASSERT_TRUE(recorder.waitForMessages(count));
    }
    client->disconnect();
}

TEST(ReadingCaller, ConcurrentCallersGetTheirOwnResponses) {
    Broker broker;
    EchoService service(broker.address());
    const auto client = newAsker(broker.address());
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&, caller] {
            for (int i = 0; i < 250; ++i) {
                const std::string payload = std::to_string(caller) + "." + std::to_string(i);
                if (ask(*client, payload) != "re:" + payload) ++wrong;
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(wrong, 0);
    client->disconnect();
}

TEST(ReadingCaller, LosesItsRequestWithTheConnection) {
    Broker broker;
    Gate asked;
    Gate answered;
    EchoService service(broker.address(), [&](const auto& requests) {
        if (requests.front().payload == "held") {
            asked.open();
            answered.passBlocked();
        }
        return EchoService::echo(requests);
    });
    const auto client = newAsker(broker.address());
    std::thread caller([&] { EXPECT_THROW(ask(*client, "held", 4 * patience), ipc::IPCInterruptedException); });
    EXPECT_TRUE(asked.pass());
    broker.stop();
    caller.join();
    answered.open();
    broker.start();
    EXPECT_TRUE(waitForService(*client));
    client->disconnect();
}

}  // namespace
