// bench_pass PORT: a line "pass" on standard input requests a pass on the bus, waits for its result there, and prints
// the milliseconds between the two, then the result.
#include <chrono>
#include <cstdio>
#include <iostream>

#include "floors/BareClient.h"

namespace {

constexpr char state[] = "State.Provisioning";

/// The value of a change of the state, without an escape as its words have none.
std::string valueOf(const mosquitto_message& message) {
    const std::string text(static_cast<const char*>(message.payload), static_cast<std::size_t>(message.payloadlen));
    const std::string before = R"("value":")";
    const auto begin = text.find(before);
    if (begin == std::string::npos) return {};
    const auto from = begin + before.size();
    return text.substr(from, text.find('"', from) - from);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        const std::string topic = std::string("prop-service-state/") + state;
        std::string result;
        floors::BareClient client(std::atoi(argv[1]), "bench-pass",
                                  [&](const mosquitto_message& message, const mosquitto_property*) {
                                      if (topic != message.topic) return;
                                      const std::string value = valueOf(message);
                                      if (value != "request") result = value;
                                  });
        client.subscribe(topic);
        for (std::string line; std::getline(std::cin, line);) {
            result.clear();
            const auto begin = std::chrono::steady_clock::now();
            // Without a topic for a response: handling it would count as time of the pass.
            const std::string request = floors::setRequest(state, "request");
            mosquitto_publish(client.handle(), nullptr, "prop-service/set", static_cast<int>(request.size()),
                              request.data(), 0, false);
            while (result.empty()) client.step();
            const auto end = std::chrono::steady_clock::now();
            std::printf("%.3f %s\n", std::chrono::duration<double, std::milli>(end - begin).count(), result.c_str());
            std::fflush(stdout);
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_pass: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
