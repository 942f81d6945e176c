// The commands. Each runs to its end and prints what it found; what goes wrong leaves it as an exception.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Environment.h"
#include "ExitCode.h"

namespace zavctl {

struct Options {
    std::string host = "localhost:1883";
    bool json = false;
    bool showSecrets = false;
};

ExitCode get(const Environment& environment, const Options& options, const std::string& key);
ExitCode set(const Environment& environment, const Options& options, const std::string& key, const std::string& value);
ExitCode list(const Environment& environment, const Options& options, const std::string& prefix);
ExitCode status(const Environment& environment, const Options& options);

/// What the catalogue says of a key, and the names of keys.
ExitCode describe(const Environment& environment, const Options& options, const std::string& key);
ExitCode keys(const Environment& environment, const Options& options, const std::string& prefix);

/// Settings are what outlives a restart and may be written. What is written is written all together or not at all.
ExitCode exportSettings(const Environment& environment, const Options& options, const std::string& prefix);
/// Shows what would change; writes it with `apply` only.
ExitCode importSettings(const Environment& environment, const Options& options, const std::string& path, bool apply);
/// Of two files; with no second one, of the file and the phone: the file's keys or, with `all`, all settings.
ExitCode diffSettings(const Environment& environment, const Options& options, const std::string& before,
                      const std::optional<std::string>& after, bool all);
/// A key, or everything that begins with a prefix that ends in a dot.
ExitCode reset(const Environment& environment, const Options& options, const std::string& key);
/// To a new file; `path` "-" is the output. With `replace`, a file that exists is replaced.
ExitCode backup(const Environment& environment, const Options& options, const std::string& path, bool replace);
ExitCode restore(const Environment& environment, const Options& options, const std::string& path);

/// Prints changes until the environment's stop signal is set.
ExitCode watch(const Environment& environment, const Options& options, const std::string& prefix);

/// Asks for a provisioning pass; with `wait` follows it to its end, for `timeout` at most.
ExitCode provision(const Environment& environment, const Options& options, bool wait,
                   std::chrono::milliseconds timeout);

}  // namespace zavctl
