// The command line of zavctl, and its commands. A command prints its result and returns when it is done; errors are
// thrown.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Environment.h"
#include "Failure.h"

namespace zavctl {

/// Parses the command line (without the program's name), runs the command, and turns errors into messages and an exit
/// status. Never throws.
ExitCode run(const std::vector<std::string>& arguments, const Environment& environment);

struct Options {
    std::string host = "localhost:1883";
    bool json = false;
    bool showSecrets = false;
};

void get(const Environment& environment, const Options& options, const std::string& key);
void set(const Environment& environment, const Options& options, const std::string& key, const std::string& value);
void list(const Environment& environment, const Options& options, const std::string& prefix);
void status(const Environment& environment, const Options& options);

/// The catalogue's definition of a key, and the keys without their values.
void describe(const Environment& environment, const Options& options, const std::string& key);
void keys(const Environment& environment, const Options& options, const std::string& prefix);

/// Settings are the properties that survive a restart and are writable. A command writes all its changes or none.
void exportSettings(const Environment& environment, const Options& options, const std::string& prefix);
/// Shows what would change, and writes it only with `apply`.
void importSettings(const Environment& environment, const Options& options, const std::string& path, bool apply);
/// Compares two files. Without `after`, compares the file with the phone: the file's keys or, with `all`, all settings.
void diffSettings(const Environment& environment, const Options& options, const std::string& before,
                  const std::optional<std::string>& after, bool all);
/// `key` is one key, or a prefix that ends in a dot.
void reset(const Environment& environment, const Options& options, const std::string& key);
/// Writes a new file; `path` "-" is standard output. With `replace`, an existing file is replaced.
void backup(const Environment& environment, const Options& options, const std::string& path, bool replace);
void restore(const Environment& environment, const Options& options, const std::string& path);

/// Prints changes until the environment's stop signal.
void watch(const Environment& environment, const Options& options, const std::string& prefix);

/// Requests a provisioning pass.
void requestProvisioning(const Environment& environment, const Options& options);
/// Also waits for its end, up to `timeout`, and prints why it is not a success, from the daemon's log: the file `log`
/// or, if that is empty, the journal. A pass that ends "fail" is ExitCode::failed.
ExitCode provisionAndWait(const Environment& environment, const Options& options, std::chrono::milliseconds timeout,
                          const std::string& log);

/// What `explain` explains.
struct ExplainOptions {
    std::string as;         // a settings file, "running", or empty: the catalogue's defaults
    std::string catalogue;  // path; empty: the installed one
    std::string key;        // path of the pass phrase; empty: this machine's
    std::string base;       // the URL that the folder stands for; empty: the server's
};

/// Prints what a phone would do with the files in a folder, a file, or the file at a URL; changes nothing. A pass that
/// would end "fail" is ExitCode::failed.
ExitCode explain(const Environment& environment, const Options& options, const std::string& source,
                 const ExplainOptions& phone);

/// Prints why the phone does not provision; changes nothing. `log` is the daemon's log; if it is empty, the journal is.
ExitCode doctor(const Environment& environment, const Options& options, const std::string& log);

/// How pack, unpack and fleet publish.
struct PublishOptions {
    std::string key;  // path of the key file
    std::string to;   // output folder
    bool force = false;
    bool dryRun = false;
    std::string catalogue;        // pack, fleet: path; empty: the installed one
    bool removeVanished = false;  // pack
    std::string place;            // fleet: of a single template file
    std::string errors;           // fleet: file for the failed rows
};

/// Publish a folder, recover one, and make and publish the files of a table's rows. Without a phone. Findings and
/// failed rows that kept something from being written are ExitCode::failed.
ExitCode pack(const Environment& environment, const Options& options, const std::string& folder,
              const PublishOptions& publish);
ExitCode unpack(const Environment& environment, const Options& options, const std::string& folder,
                const PublishOptions& publish);
ExitCode fleet(const Environment& environment, const Options& options, const std::string& table,
               const std::string& templatePath, const PublishOptions& publish);

}  // namespace zavctl
