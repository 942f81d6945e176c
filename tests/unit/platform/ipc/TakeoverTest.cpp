// Another client connects under the same name, and the broker gives it the session.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "BusFixtures.h"
#include "Sanitizers.h"
#include "fakes/Broker.h"
#include "fakes/LogCapture.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using fakes::Broker;
using fakes::StubbornBroker;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;

const std::string cause = "another client named \"prov-client\" has taken over the session";

TEST(Takeover, ReportedByTheBrokerIsTheCauseAndReconnectsAfterASecond) {
    StubbornBroker broker;
    Recorder recorder;
    const auto client = newClient("prov-client");
    client->subscribe("a", recorder);
    client->connect(broker.address());
    const auto begin = steady_clock::now();
    broker.takeOver();
    ASSERT_TRUE(recorder.waitForLosses(1));
    EXPECT_EQ(recorder.losses(), std::vector<std::string>{cause});
    ASSERT_TRUE(eventually([&] { return broker.connections() == 2; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(1000));
    client->disconnect();
}

// Some versions of the broker close the connection without a reason.
TEST(Takeover, ByARealClientIsTheCause) {
    Broker broker;
    Recorder first;
    const auto client = newClient("prov-client");
    client->subscribe("a", first);
    client->connect(broker.address());
    Recorder second;
    const auto other = newClient("prov-client");
    other->subscribe("a", second);
    other->connect(broker.address());
    ASSERT_TRUE(first.waitForLosses(1));
    EXPECT_THAT(first.losses()[0], HasSubstr(cause));
    ASSERT_TRUE(second.waitForLosses(1)) << "the first client must take the session back";
    EXPECT_THAT(second.losses()[0], HasSubstr(cause));
    other->disconnect();
    client->disconnect();
}

/// Publishes faster than the broker reads, until it is destroyed.
class Flood {
 public:
    explicit Flood(ipc::IIPCClient& client)
        : thread_([this, &client] {
              while (!enough_) {
                  try {
                      client.publish("b", std::string(10000, 'x'), 0);
                  } catch (const ipc::IPCException&) {
                      std::this_thread::yield();  // the socket is full
                  }
              }
          }) {}
    ~Flood() {
        enough_ = true;
        thread_.join();
    }

 private:
    std::atomic<bool> enough_{false};
    std::thread thread_;
};

TEST(Takeover, ByARealClientIsTheCauseUnderLoad) {
    Broker broker;
    Recorder recorder;
    const auto client = newClient("prov-client");
    client->subscribe("a", recorder);
    client->connect(broker.address());
    {
        const Flood flood(*client);
        const auto other = newClient("prov-client");
        other->connect(broker.address());
        EXPECT_TRUE(recorder.waitForLosses(1));
    }
    EXPECT_THAT(recorder.losses()[0], HasSubstr(cause));
    client->disconnect();
}

TEST(Takeover, ReportedByTheBrokerIsTheCauseUnderLoad) {
    if (findsLostPackets) GTEST_SKIP() << "libmosquitto loses the packet that it is writing";
    StubbornBroker broker;
    Recorder recorder;
    const auto client = newClient("prov-client");
    client->subscribe("a", recorder);
    client->connect(broker.address());
    {
        const Flood flood(*client);
        broker.takeOver();
        EXPECT_TRUE(recorder.waitForLosses(1));
    }
    EXPECT_EQ(recorder.losses()[0], cause);
    client->disconnect();
}

TEST(Takeover, IsNotSuspectedIfTheBrokerHasExited) {
    Broker broker;
    Recorder recorder;
    const auto client = newClient("prov-client");
    client->subscribe("a", recorder);
    client->connect(broker.address());
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    EXPECT_THAT(recorder.losses()[0], Not(HasSubstr("another client")));
    client->disconnect();
}

TEST(Takeover, ClientWorksOnceTheOtherHasExited) {
    Broker broker;
    const EchoService service(broker.address());
    Recorder recorder;
    const auto client = newAsker(broker.address(), "a", &recorder);
    {
        const auto other = newClient("asker");
        other->connect(broker.address());
        ASSERT_TRUE(recorder.waitForLosses(1));
        other->disconnect();
    }
    EXPECT_TRUE(waitForService(*client));
    client->publish("a", "x", 1);
    EXPECT_TRUE(recorder.waitForMessages(1));
    client->disconnect();
}

TEST(Takeover, ReportedByTheBrokerIsLoggedByAService) {
    StubbornBroker broker;
    const fakes::LogCapture log;
    const EchoService service(broker.address());
    ASSERT_TRUE(eventually([&] { return broker.connections() == 1; }));
    broker.takeOver();
    EXPECT_TRUE(
        log.waitFor(fakes::error("platform/ipc/src/ConnectionThread",
                                 "Another test-service is connected to the broker and has taken over from this one")))
        << log.text();
    broker.giveIn();
}

TEST(Takeover, ByARealServiceIsLogged) {
    Broker broker;
    const fakes::LogCapture log;
    const EchoService service(broker.address());
    const auto client = newAsker(broker.address());
    const EchoService other(broker.address());
    EXPECT_TRUE(eventually([&] { return log.text().find("nother test-service is connected") != std::string::npos; }))
        << log.text();
    EXPECT_TRUE(waitForService(*client)) << "one of the services must answer";
}

TEST(Takeover, OfAServiceFailsTheRequestInFlight) {
    Broker broker;
    Gate asked;
    EchoService mute(broker.address(), [&](const std::vector<ipc::ServiceRequest>&) {
        asked.open();
        return std::vector<ipc::OutgoingMessage>();
    });
    const auto client = newClient("asker");
    client->watchPresence(statusTopic);
    client->connect(broker.address());
    std::string outcome;
    std::thread asking([&] {
        try {
            outcome = ask(*client, "x");
        } catch (const ipc::IPCServiceLostException&) {
            outcome = "service lost";
        } catch (const ipc::IPCException& error) {
            outcome = error.what();
        }
    });
    ASSERT_TRUE(asked.pass());
    const EchoService other(broker.address());
    asking.join();
    EXPECT_EQ(outcome, "service lost");
}

}  // namespace
