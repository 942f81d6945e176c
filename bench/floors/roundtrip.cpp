// floor_roundtrip PORT: round trips of a bare client to floor_responder. "get 2000" and "set 2000" on standard input
// each print the median, the 99th percentile and the largest time, in microseconds.
#include "floors/BareClient.h"
#include "probes/Calls.h"

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        floors::BareClient client(std::atoi(argv[1]), "floor-client");
        unsigned value = 0;
        probes::serveLines([&](const std::string& word, int count) {
            if (word == "get") {
                probes::timeCalls(count, [&] { client.request("echo/get", R"({"param":"State.Bench.Key"})"); });
            } else {
                probes::timeCalls(count, [&] {
                    client.request("echo/set", floors::setRequest("State.Bench.Key", std::to_string(++value)));
                });
            }
        });
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "floor_roundtrip: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
