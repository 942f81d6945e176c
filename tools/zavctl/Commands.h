// The commands. Each prints its result and returns when it is done; errors are thrown.
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

/// The catalogue's definition of a key, and the keys without their values.
ExitCode describe(const Environment& environment, const Options& options, const std::string& key);
ExitCode keys(const Environment& environment, const Options& options, const std::string& prefix);

/// Settings are the properties that survive a restart and are writable. A command writes all its changes or none.
ExitCode exportSettings(const Environment& environment, const Options& options, const std::string& prefix);
/// Shows what would change, and writes it only with `apply`.
ExitCode importSettings(const Environment& environment, const Options& options, const std::string& path, bool apply);
/// Compares two files. Without `after`, compares the file with the phone: the file's keys or, with `all`, all settings.
ExitCode diffSettings(const Environment& environment, const Options& options, const std::string& before,
                      const std::optional<std::string>& after, bool all);
/// `key` is one key, or a prefix that ends in a dot.
ExitCode reset(const Environment& environment, const Options& options, const std::string& key);
/// Writes a new file; `path` "-" is standard output. With `replace`, an existing file is replaced.
ExitCode backup(const Environment& environment, const Options& options, const std::string& path, bool replace);
ExitCode restore(const Environment& environment, const Options& options, const std::string& path);

/// Prints changes until the environment's stop signal.
ExitCode watch(const Environment& environment, const Options& options, const std::string& prefix);

/// Requests a provisioning pass; with `wait`, waits for its end, up to `timeout`.
ExitCode provision(const Environment& environment, const Options& options, bool wait,
                   std::chrono::milliseconds timeout);

/// Prints why the phone does not provision; changes nothing. `log` is the daemon's log; if it is empty, the journal is.
ExitCode doctor(const Environment& environment, const Options& options, const std::string& log);

}  // namespace zavctl
