// floor_responder PORT: the least that a property service does. Answers each request on echo/get with its own payload.
// On echo/set it also publishes the change, with quality of service 1. Prints "ready" once it is subscribed.
#include <cstdio>
#include <cstring>

#include "floors/BareClient.h"

namespace {

void answer(mosquitto* handle, const mosquitto_message& message, const mosquitto_property* request) {
    char* topic = nullptr;
    void* correlation = nullptr;
    std::uint16_t size = 0;
    mosquitto_property_read_string(request, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
    mosquitto_property_read_binary(request, MQTT_PROP_CORRELATION_DATA, &correlation, &size, false);
    if (topic == nullptr) return;
    if (std::strcmp(message.topic, "echo/set") == 0) {
        mosquitto_publish_v5(handle, nullptr, "echo-state/State.Bench", message.payloadlen, message.payload, 1, false,
                             nullptr);
    }
    mosquitto_property* properties = nullptr;
    mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation, size);
    mosquitto_publish_v5(handle, nullptr, topic, message.payloadlen, message.payload, 0, false, properties);
    mosquitto_property_free_all(&properties);
    std::free(topic);
    std::free(correlation);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        mosquitto* handle = nullptr;
        floors::BareClient client(std::atoi(argv[1]), "floor-responder",
                                  [&handle](const mosquitto_message& message, const mosquitto_property* properties) {
                                      if (std::strncmp(message.topic, "echo/", 5) == 0)
                                          answer(handle, message, properties);
                                  });
        handle = client.handle();
        client.subscribe("echo/#");
        std::puts("ready");
        std::fflush(stdout);
        for (;;) client.step();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "floor_responder: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
