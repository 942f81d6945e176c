// Another program listens on the broker's port: the reason must say so, whatever that program does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "BusFixtures.h"
#include "RawListener.h"
#include "fakes/Broker.h"
#include "fakes/LogCapture.h"

namespace {

using namespace bustest;
using std::string_literals::operator""s;
using Then = RawListener::Then;

struct Case {
    const char* name;
    std::string bytes;
    Then then;
    const char* detail;
};

std::ostream& operator<<(std::ostream& stream, const Case& row) { return stream << row.name; }

class NotABroker : public testing::TestWithParam<Case> {};

TEST_P(NotABroker, ConnectReportsIt) {
    const RawListener listener(GetParam().bytes, GetParam().then);
    const auto client = newClient("asker");
    std::string reason = "connected";
    try {
        client->connect(listener.address());
    } catch (const ipc::IPCException& error) {
        reason = error.what();
    }
    EXPECT_EQ(reason, "Cannot connect to the broker at " + listener.address() + ": it is not an MQTT v5 broker (" +
                          GetParam().detail + ")");
}

INSTANTIATE_TEST_SUITE_P(
    Listener, NotABroker,
    testing::Values(Case{"ClosesAtOnce", "", Then::closes, "it closed the connection"},
                    Case{"SendsNothing", "", Then::stays, "no answer within 5 s"},
                    Case{"SpeaksHttp", "HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n", Then::closes,
                         "its answer is not MQTT v5"},
                    Case{"SpeaksSsh", "SSH-2.0-OpenSSH_9.2\r\n", Then::stays, "its answer is not MQTT v5"},
                    Case{"SendsGarbage", std::string(1000, '\xff'), Then::closes, "its answer is not MQTT v5"},
                    Case{"SendsNulBytes", std::string(1000, '\0'), Then::stays, "its answer is not MQTT v5"},
                    Case{"AnswersHalfAndCloses", "\x20\x10\x00"s, Then::closes, "it closed the connection"},
                    Case{"AnswersAsMqtt311", "\x20\x02\x00\x00"s, Then::stays, "its answer is not MQTT v5"},
                    Case{"RefusesTheVersionAsMqtt311", "\x20\x02\x00\x01"s, Then::closes, "it refuses MQTT v5"},
                    Case{"RefusesTheVersionAsMqtt5", "\x20\x03\x00\x84\x00"s, Then::closes, "it refuses MQTT v5"}),
    [](const auto& row) { return row.param.name; });

TEST(NotABroker, ServiceLogsItAndServesOnceThereIsABroker) {
    fakes::Broker broker;
    broker.stop();
    auto listener = std::make_unique<RawListener>("HTTP/1.1 400 Bad Request\r\n\r\n", Then::closes, broker.port());
    const fakes::LogCapture log;
    const EchoService service(broker.address());
    EXPECT_TRUE(log.waitFor(fakes::warning("platform/ipc/src/ConnectionThread",
                                           "Cannot connect to the broker at " + broker.address() +
                                               ": it is not an MQTT v5 broker (its answer is not MQTT v5); retrying")))
        << log.text();
    listener.reset();
    broker.start();
    const auto client = newAsker(broker.address());
    EXPECT_EQ(ask(*client, "x"), "re:x");
}

TEST(NotABroker, ClientReconnectsOnceTheBrokerIsBack) {
    fakes::Broker broker;
    const EchoService service(broker.address());
    Recorder recorder;
    const auto client = newAsker(broker.address(), "a", &recorder);
    const char* const answers[] = {"", "\x20\x03"};
    for (const char* const bytes : answers) {
        broker.stop();
        {
            const RawListener listener(bytes, Then::closes, broker.port());
            ASSERT_TRUE(eventually([&] { return listener.connections() >= 3; }));
        }
        broker.start();
        EXPECT_TRUE(waitForService(*client));
    }
    EXPECT_TRUE(recorder.waitForLosses(2)) << "each loss must be reported once";
    client->disconnect();
}

}  // namespace
