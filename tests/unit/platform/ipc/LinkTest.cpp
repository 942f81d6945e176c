// A link without a connection: the test acts as the network thread.
#include "Link.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <functional>
#include <string>
#include <vector>

#include "BusFixtures.h"
#include "RawListener.h"
#include "fakes/StubbornBroker.h"

namespace {

using bustest::RawListener;
using ipc::BackOff;
using ipc::Link;
using Stage = Link::Stage;

class Listener : public ipc::LinkListener {
 public:
    void acknowledged(int identifier, int reason) override {
        acknowledgements.push_back(identifier);
        reasons.push_back(reason);
    }
    void subscribed(int identifier, const std::string& refusal) override {
        subscriptions.push_back(identifier);
        refusals.push_back(refusal);
    }
    bool arrived(const ipc::Incoming& message) override {
        messages.emplace_back(message.payload);
        return goOn;
    }

    std::vector<int> acknowledgements;
    std::vector<int> reasons;
    std::vector<int> subscriptions;
    std::vector<std::string> refusals;
    std::vector<std::string> messages;
    bool goOn = true;
};

int portOf(const std::string& address) { return std::stoi(address.substr(address.find(':') + 1)); }

/// Connects the link and serves it until a condition holds.
class Driver {
 public:
    explicit Driver(const std::string& address) { failure_ = link.connect("127.0.0.1", portOf(address)); }

    const std::string& failure() const { return failure_; }

    bool until(const std::function<bool()>& condition) {
        const auto limit = Link::Clock::now() + bustest::patience;
        while (!condition() && Link::Clock::now() < limit) {
            pollfd watched{link.descriptor(), link.eventsToAwait(false), 0};
            poll(&watched, 1, 5);
            link.beginRound();
            if (!link.serve(watched.revents)) break;
            link.keepAlive();
            link.endRound(watched.revents);
        }
        return condition();
    }
    bool untilAccepted() {
        return until([this] { return link.stage() == Stage::accepted; });
    }
    bool untilOver() {
        return until([this] { return link.isOver(); });
    }
    bool subscribe() {
        int identifier = 0;
        EXPECT_EQ(link.subscribe("t", 1, MQTT_SUB_OPT_SEND_RETAIN_NEW, 1, &identifier), MOSQ_ERR_SUCCESS);
        return until([&] { return listener.subscriptions == std::vector<int>{identifier}; });
    }

    Listener listener;
    Link link{{"link-test", "link-test", "", true, 0}, listener};

 private:
    std::string failure_;
};

TEST(Link, IsSilentUntilTheBrokerAccepts) {
    fakes::StubbornBroker broker;
    Driver driver(broker.address());
    EXPECT_EQ(driver.failure(), "");
    EXPECT_EQ(driver.link.stage(), Stage::silent);
    EXPECT_TRUE(driver.untilAccepted());
    EXPECT_FALSE(driver.link.isOver());
    EXPECT_EQ(driver.link.failure(), "");
}

TEST(Link, ReportsSubscriptionsAndAcknowledgements) {
    fakes::StubbornBroker broker;
    Driver driver(broker.address());
    ASSERT_TRUE(driver.untilAccepted());
    ASSERT_TRUE(driver.subscribe());
    EXPECT_EQ(driver.listener.refusals, std::vector<std::string>{""});
    int identifier = 0;
    EXPECT_EQ(driver.link.publish({"t", "x", 1, {}, {}}, false, &identifier), MOSQ_ERR_SUCCESS);
    EXPECT_TRUE(driver.until([&] { return broker.owed() == 1; }));
    EXPECT_EQ(driver.link.publish({"t", "x", 0, {}, {}}, false, nullptr), MOSQ_ERR_SUCCESS);
    EXPECT_TRUE(driver.until([&] { return broker.published().size() == 2; }));
    EXPECT_TRUE(driver.listener.acknowledgements.empty()) << "quality of service 0 is not acknowledged";
    broker.giveIn();
    EXPECT_TRUE(driver.until([&] { return driver.listener.acknowledgements == std::vector<int>{identifier}; }));
    EXPECT_EQ(driver.listener.reasons, std::vector<int>{0});
}

TEST(Link, ReadsNothingWhilePaused) {
    fakes::StubbornBroker broker;
    Driver driver(broker.address());
    driver.listener.goOn = false;
    ASSERT_TRUE(driver.untilAccepted());
    ASSERT_TRUE(driver.subscribe());
    broker.send("t", "x", 3);
    ASSERT_TRUE(driver.until([&] { return driver.listener.messages.size() == 1; }));
    EXPECT_EQ(driver.link.eventsToAwait(false) & POLLIN, 0);
    EXPECT_NE(driver.link.eventsToAwait(true) & POLLIN, 0);
    driver.listener.goOn = true;
    EXPECT_TRUE(driver.link.resumeReading());
    EXPECT_FALSE(driver.link.resumeReading());
    EXPECT_TRUE(driver.until([&] { return driver.listener.messages.size() == 3; }));
}

TEST(Link, EndsWithTheReasonOfARefusal) {
    RawListener broker(std::string("\x20\x03\x00\x87\x00", 5), RawListener::Then::stays);
    Driver driver(broker.address());
    EXPECT_TRUE(driver.untilOver());
    EXPECT_EQ(driver.link.stage(), Stage::refused);
    EXPECT_EQ(driver.link.failure(), "Not authorized");
}

TEST(Link, EndsIfThePeerIsNotABroker) {
    RawListener server("HTTP/1.1 400 Bad Request\r\n\r\n", RawListener::Then::stays);
    Driver driver(server.address());
    EXPECT_TRUE(driver.untilOver());
    EXPECT_EQ(driver.link.stage(), Stage::answering);
    EXPECT_EQ(driver.link.failure(), "its answer is not MQTT v5");
}

TEST(Link, DistinguishesATakeover) {
    for (const bool takesOver : {true, false}) {
        fakes::StubbornBroker broker;
        Driver driver(broker.address());
        ASSERT_TRUE(driver.untilAccepted());
        takesOver ? broker.takeOver() : broker.hangUp();
        EXPECT_TRUE(driver.untilOver());
        EXPECT_EQ(driver.link.loss(), takesOver ? BackOff::Loss::takeover : BackOff::Loss::plain);
        EXPECT_EQ(driver.link.isClosedByPeer(), !takesOver);
        EXPECT_NE(driver.link.failure(), "");
    }
}

TEST(Link, PingsOnceInEachIntervalThatTheBrokerDemands) {
    fakes::StubbornBroker broker(65535, 1);
    Driver driver(broker.address());
    ASSERT_TRUE(driver.untilAccepted());
    for (const int count : {1, 2}) {
        const auto due = driver.link.keepAliveAt();
        ASSERT_TRUE(driver.until([&] { return driver.link.keepAliveAt() != due; }));
        const auto next = driver.link.keepAliveAt();
        EXPECT_GT(next, due + std::chrono::milliseconds(500));
        ASSERT_TRUE(driver.until([&] { return broker.pings() == count; }));
        EXPECT_EQ(driver.link.keepAliveAt(), next) << "it woke up without sending a ping";
    }
    EXPECT_FALSE(driver.link.isOver());
}

TEST(Link, EndsIfAPingIsNotAnswered) {
    fakes::StubbornBroker broker(65535, 1);
    broker.ignorePings();
    Driver driver(broker.address());
    ASSERT_TRUE(driver.untilAccepted());
    EXPECT_TRUE(driver.untilOver());
    EXPECT_EQ(broker.pings(), 1);
    EXPECT_FALSE(driver.link.isClosedByPeer());
}

TEST(Link, TrafficInBothDirectionsPostponesThePing) {
    fakes::StubbornBroker broker(65535, 2);
    broker.giveIn();
    Driver driver(broker.address());
    ASSERT_TRUE(driver.untilAccepted());
    const auto first = driver.link.keepAliveAt();
    while (driver.link.keepAliveAt() == first) {
        int identifier = 0;
        ASSERT_EQ(driver.link.publish({"t", "x", 1, {}, {}}, false, &identifier), MOSQ_ERR_SUCCESS);
        ASSERT_TRUE(driver.until([&] {
            const auto& all = driver.listener.acknowledgements;
            return !all.empty() && all.back() == identifier;
        }));
    }
    EXPECT_EQ(broker.pings(), 0);
    EXPECT_GT(driver.link.keepAliveAt(), Link::Clock::now());
    ASSERT_TRUE(driver.until([&] { return broker.pings() == 1; }));
}

TEST(Link, KeepsTheFirstFailure) {
    fakes::StubbornBroker broker;
    Driver driver(broker.address());
    driver.link.fail("first");
    driver.link.fail("second");
    EXPECT_TRUE(driver.link.isOver());
    EXPECT_EQ(driver.link.failure(), "first");
}

TEST(Link, ReportsWhyItCannotConnect) {
    Driver driver("127.0.0.1:1");
    EXPECT_EQ(driver.failure(), "Connection refused");
}

}  // namespace
