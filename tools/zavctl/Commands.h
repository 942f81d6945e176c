// The commands. Each runs to its end and prints what it found; what goes wrong leaves it as an exception.
#pragma once

#include <chrono>
#include <string>

#include "Environment.h"
#include "ExitCode.h"

namespace zavctl {

struct Options {
    std::string host = "localhost:1883";
    bool json = false;
};

ExitCode get(const Environment& environment, const Options& options, const std::string& key);
ExitCode set(const Environment& environment, const Options& options, const std::string& key, const std::string& value);
ExitCode list(const Environment& environment, const Options& options, const std::string& prefix);
ExitCode status(const Environment& environment, const Options& options);

/// Prints changes until the environment's stop signal is set.
ExitCode watch(const Environment& environment, const Options& options, const std::string& prefix);

/// Asks for a provisioning pass; with `wait` follows it to its end, for `timeout` at most.
ExitCode provision(const Environment& environment, const Options& options, bool wait,
                   std::chrono::milliseconds timeout);

}  // namespace zavctl
