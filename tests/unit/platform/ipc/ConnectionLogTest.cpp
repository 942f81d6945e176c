// What a bus service logs about its connection; a client tells its callbacks instead.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "BusFixtures.h"
#include "RawListener.h"
#include "fakes/Broker.h"
#include "fakes/LogCapture.h"
#include "fakes/StubbornBroker.h"

namespace {

using namespace bustest;
using Then = RawListener::Then;

const std::string source = "platform/ipc/src/ConnectionThread";

TEST(ConnectionLog, HasAFailureOnceUntilTheNextConnection) {
    fakes::Broker broker;
    broker.stop();
    auto listener = std::make_unique<RawListener>("HTTP/1.1 400 Bad Request\r\n\r\n", Then::closes, broker.port());
    fakes::LogCapture log;
    const std::string begin = "Cannot connect to the broker at " + broker.address() + ": ";
    const EchoService service(broker.address());
    // Each attempt connects twice, as it probes first.
    ASSERT_TRUE(eventually([&] { return listener->connections() >= 5; }));
    EXPECT_EQ(
        log.count(fakes::warning(source, begin + "it is not an MQTT v5 broker (its answer is not MQTT v5); retrying")),
        1U)
        << log.text();
    listener.reset();
    for (int connection = 1; connection <= 2; ++connection) {
        broker.start();
        ASSERT_TRUE(log.waitFor(fakes::info(source, "Connected to the broker"))) << log.text();
        log.forget();
        broker.stop();
        EXPECT_TRUE(log.waitFor(fakes::warning(source, begin + "Connection refused; retrying"))) << log.text();
    }
}

TEST(ConnectionLog, HasALossAndItsCause) {
    fakes::Broker broker;
    const fakes::LogCapture log;
    const EchoService service(broker.address());
    ASSERT_TRUE(log.waitFor(fakes::info(source, "Connected to the broker"))) << log.text();
    broker.stop();
    EXPECT_TRUE(eventually([&] { return log.text().find("Connection to the broker lost: ") != std::string::npos; }))
        << log.text();
}

TEST(ConnectionLog, HasASuspectedTakeover) {
    fakes::StubbornBroker broker;
    const fakes::LogCapture log;
    const EchoService service(broker.address());
    ASSERT_TRUE(log.waitFor(fakes::info(source, "Connected to the broker"))) << log.text();
    broker.hangUp();
    EXPECT_TRUE(log.waitFor(fakes::warning(source,
                                           "The broker closed the connection; perhaps another test-service is "
                                           "connected and has taken over from this one")))
        << log.text();
    broker.giveIn();
}

TEST(ConnectionLog, HasNothingAboutAClient) {
    fakes::Broker broker;
    Recorder recorder;
    const fakes::LogCapture log;
    const auto client = newClient("prov-client");
    client->subscribe("a", recorder);
    client->connect(broker.address());
    broker.stop();
    ASSERT_TRUE(recorder.waitForLosses(1));
    {
        const RawListener listener("HTTP/1.1 400 Bad Request\r\n\r\n", Then::closes, broker.port());
        ASSERT_TRUE(eventually([&] { return listener.connections() >= 2; }));
    }
    client->disconnect();
    EXPECT_TRUE(log.lines().empty()) << log.text();
}

}  // namespace
