// What users read about a broker that ends or refuses a connection.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Mqtt.h"

namespace {

TEST(LossText, IsTheBrokersReasonOrTheSystems) {
    EXPECT_EQ(ipc::lossText(MQTT_RC_SERVER_SHUTTING_DOWN, 0), mosquitto_reason_string(MQTT_RC_SERVER_SHUTTING_DOWN));
    EXPECT_EQ(ipc::lossText(MOSQ_ERR_ERRNO, ECONNRESET), "Connection reset by peer");
    EXPECT_EQ(ipc::lossText(MOSQ_ERR_ERRNO, 0), mosquitto_strerror(MOSQ_ERR_CONN_LOST));
    EXPECT_EQ(ipc::lossText(MOSQ_ERR_KEEPALIVE, ECONNRESET), mosquitto_strerror(MOSQ_ERR_KEEPALIVE));
}

TEST(HandshakeFailureText, SaysWhatThePeerDid) {
    EXPECT_EQ(ipc::handshakeFailureText(MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION, 0), "it refuses MQTT v5");
    EXPECT_EQ(ipc::handshakeFailureText(MOSQ_ERR_PROTOCOL, 0), "its answer is not MQTT v5");
    EXPECT_EQ(ipc::handshakeFailureText(MOSQ_ERR_MALFORMED_PACKET, 0), "its answer is not MQTT v5");
    EXPECT_EQ(ipc::handshakeFailureText(MOSQ_ERR_CONN_LOST, 0), "it closed the connection");
    EXPECT_EQ(ipc::handshakeFailureText(MOSQ_ERR_ERRNO, 0), "it closed the connection");
    EXPECT_EQ(ipc::handshakeFailureText(MOSQ_ERR_ERRNO, ECONNRESET), "Connection reset by peer");
    EXPECT_EQ(ipc::handshakeFailureText(MQTT_RC_BANNED, 0), mosquitto_reason_string(MQTT_RC_BANNED));
}

TEST(TopicMatches, ComparesLevels) {
    EXPECT_TRUE(ipc::topicMatches("a/+/c", "a/b/c"));
    EXPECT_TRUE(ipc::topicMatches("a/#", "a"));
    EXPECT_FALSE(ipc::topicMatches("a/+", "a/b/c"));
    EXPECT_FALSE(ipc::topicMatches("a#", "a"));
}

TEST(IncomingMessage, WithoutPropertiesHasNone) {
    const ipc::Incoming message{"topic", "payload", 0, nullptr};
    EXPECT_EQ(message.responseTopic(), "");
    EXPECT_EQ(message.correlationData(), "");
    EXPECT_TRUE(message.subscriptions().empty());
}

TEST(IncomingMessage, HasEmptyPropertiesAsEmptyTexts) {
    ipc::Properties properties;
    properties.addText(MQTT_PROP_RESPONSE_TOPIC, "");
    properties.addBinary(MQTT_PROP_CORRELATION_DATA, "");
    const ipc::Incoming message{"topic", "payload", 0, properties.get()};
    EXPECT_EQ(message.responseTopic(), "");
    EXPECT_EQ(message.correlationData(), "");
}

}  // namespace
