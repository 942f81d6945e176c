// The fuzz targets: each runs code that parses text from outside on one input, and aborts if a promise about the result
// does not hold. A target keeps no state from one input to the next, so that one file reproduces each failure.
#pragma once

#include <string>

namespace fuzz {

void bus_message(const std::string& input);
void catalogue(const std::string& input);
void certificate(const std::string& input);
void explain(const std::string& input);
void http_header(const std::string& input);
void lint(const std::string& input);
void log_text(const std::string& input);
void property_answer(const std::string& input);
void property_request(const std::string& input);
void provisioning_file(const std::string& input);
void settings_file(const std::string& input);
void url(const std::string& input);
void version(const std::string& input);

struct Target {
    const char* name;  // of its folder in corpus/
    void (*run)(const std::string& input);
};

inline constexpr Target targets[] = {
    {"bus_message", bus_message},
    {"catalogue", catalogue},
    {"certificate", certificate},
    {"explain", explain},
    {"http_header", http_header},
    {"lint", lint},
    {"log_text", log_text},
    {"property_answer", property_answer},
    {"property_request", property_request},
    {"provisioning_file", provisioning_file},
    {"settings_file", settings_file},
    {"url", url},
    {"version", version},
};

}  // namespace fuzz
