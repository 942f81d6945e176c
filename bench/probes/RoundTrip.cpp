// bench_roundtrip PORT: round trips of the property client to the property service. "get 2000" and "set 2000" on
// standard input each print the median, the 99th percentile and the largest time, in microseconds.
#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "ipc/IPCFactory.h"
#include "probes/Calls.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "propertyprotocol/Topics.h"

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        const auto bus = ipc::IPCFactory::createInstanceShared("bench", "localhost", true);
        const auto properties = propertyapi::PropertyApiBuilder::getPropertyApi(bus, "bench");
        bus->connect(std::string("127.0.0.1:") + argv[1]);
        if (!bus->waitForService(propertyprotocol::statusTopic, std::chrono::seconds(10))) {
            // It has not been online yet: calls wait a second for that.
            properties->get("State.Provisioning.OnBootUp");
        }
        unsigned value = 0;
        probes::serveLines([&](const std::string& word, int count) {
            if (word == "get") {
                probes::timeCalls(count, [&] { properties->get("State.Provisioning.OnBootUp"); });
            } else {
                probes::timeCalls(count,
                                  [&] { properties->set("State.Provisioning.OnBootUp", std::to_string(++value)); });
            }
        });
        bus->disconnect();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_roundtrip: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
