// The floor of the daemon's start and of its idling: a process with the same libraries, connected to the broker, with
// four acknowledged subscriptions. Prints "ready" on standard error, then waits for SIGTERM.
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::array<const char*, 4> topics{"prop-service-state/#", "prop-service-system/#", "watchdog/bare-client",
                                            "auto-reboot/bare-client"};
constexpr int keepAliveSeconds = 60;  // the daemon's

unsigned acknowledged = 0;

void subscribe(mosquitto* client, void*, int) {
    for (const char* const topic : topics) mosquitto_subscribe(client, nullptr, topic, 1);
}

void onAcknowledged(mosquitto*, void*, int, int, const int*) {
    if (++acknowledged == topics.size()) std::fputs("ready\n", stderr);
}

}  // namespace

int main() {
    mosquitto_lib_init();
    mosquitto* const client = mosquitto_new("bare-client", true, nullptr);
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(client, subscribe);
    mosquitto_subscribe_callback_set(client, onAcknowledged);
    if (mosquitto_connect(client, "127.0.0.1", 1883, keepAliveSeconds) != MOSQ_ERR_SUCCESS) return 1;
    // With libmosquitto's own time-out of a second it would wake up far more often than the daemon.
    return mosquitto_loop_forever(client, keepAliveSeconds * 1000, 1) == MOSQ_ERR_SUCCESS ? 0 : 1;
}
