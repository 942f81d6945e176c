// The commands that talk to a phone.
#include <optional>
#include <utility>

#include "CommandLine.h"

namespace zavctl {

namespace {

const Positional key{"KEY", "Key of the property"};
const Positional prefix{"PREFIX", "Only keys that begin with it; default: all", false};
const Positional inputFile{"FILE", "The file; - is standard input"};

constexpr char noKey[] = "no such key";
constexpr char noPrefix[] = "no key begins with PREFIX";
constexpr char refused[] = "a setting was refused and nothing written, or the file cannot be read";

// Each command needs a variable of its own: the environment also sets the options of commands that are not run.
void addLog(CLI::App* command, std::string& path) {
    command->add_option("--log", path, "File with the daemon's log; default: the journal of zavd.service")
        ->envname("ZAVD_LOG");
}

}  // namespace

void CommandLine::addPropertyCommands() {
    addCommand("get", "Prints the value of a property", {key}, {"the value was printed", notWritten, noKey},
               {"zavctl get NET.MAC.Address", "zavctl get System.Provision.Period --json"},
               [this] { get(environment_, options_, positional(0)); });
    addCommand("set", "Writes the value of a property",
               {key, {"VALUE", "The value, taken literally; put \"--\" before a value that is also an option"}},
               {"the value was written", "the value is not allowed, or the property cannot be written", noKey},
               {"zavctl set System.Provision.ProvisioningServer https://server.example/phones/",
                "zavctl set System.General.Location ''", "zavctl set System.General.Location -- --json"},
               [this] { set(environment_, options_, positional(0), positional(1)); });
    addShowSecrets(addCommand("list", "Prints properties, sorted by key", {prefix},
                              {"properties were printed", notWritten, noPrefix},
                              {"zavctl list NET.", "zavctl list --show-secrets System.Provision."},
                              [this] { list(environment_, options_, positional(0)); }));
    addCommand("keys", "Prints the keys of properties", {prefix}, {"keys were printed", notWritten, noPrefix},
               {"zavctl keys State."}, [this] { keys(environment_, options_, positional(0)); });
    addCommand("describe", "Prints the definition of a property", {key},
               {"the definition was printed", notWritten, noKey}, {"zavctl describe System.Reboot.Automatic.Hour"},
               [this] { describe(environment_, options_, positional(0)); });
    addCommand("watch", "Prints changes as they happen, until interrupted", {prefix}, {"interrupted (Ctrl-C, SIGTERM)"},
               {"zavctl watch", "zavctl watch State. --json"},
               [this] { watch(environment_, options_, positional(0)); });
}

void CommandLine::addProvisioningCommands() {
    CLI::App* const command =
        addCommand("provision", "Requests a provisioning pass", {},
                   {"the pass was requested; with --wait: it ended success or partSuccess",
                    "the pass ended fail, or the request was refused", nullptr,
                    "the pass did not end within the time-out; it may continue"},
                   {"zavctl provision", "zavctl provision --wait --timeout 120"}, [this] { provision(); });
    command->add_flag("--wait", wait_, "Waits for the end of the pass; prints its result, and why it is not success");
    command->add_option("--timeout", timeoutSeconds_, "Time-out in seconds")
        ->check(CLI::Range(0.001, 1e6))
        ->capture_default_str();
    addLog(command, passLog_);
    addCommand("status", "Prints server, last result, user interface lock, versions and period", {},
               {"the status was printed"}, {"zavctl status", "zavctl status --json"},
               [this] { status(environment_, options_); });
    addLog(addCommand("doctor", "Finds out why the phone does not provision, and changes nothing", {},
                      {"no error was found", "an error was found", nullptr, nullptr},
                      {"zavctl doctor", "zavctl doctor --json"},
                      [this] { code_ = doctor(environment_, options_, doctorLog_); }),
           doctorLog_);
    addExplain();
}

void CommandLine::addTransferCommands() {
    addShowSecrets(addCommand("export", "Prints settings in the format that import reads", {prefix},
                              {"settings were printed", notWritten, "no setting begins with PREFIX"},
                              {"zavctl export Audio. >audio.json", "zavctl export --show-secrets >all.json"},
                              [this] { exportSettings(environment_, options_, positional(0)); }));
    CLI::App* command =
        addCommand("import", "Shows what a settings file would change; --apply writes it", {inputFile},
                   {"the changes were shown; with --apply: written", refused, "none of the refused keys exists"},
                   {"zavctl import audio.json", "zavctl import --apply audio.json", "zavctl import - <audio.json"},
                   [this] { importSettings(environment_, options_, positional(0), apply_); });
    command->add_flag("--apply", apply_, "Writes all changes, or none if any is refused");
    addShowSecrets(command);
    command = addCommand(
        "diff", "Compares a settings file with another file or with the phone",
        {{"A", "A file; - is standard input"}, {"B", "Another file; default: the phone, for the keys in A", false}},
        {"the comparison was printed, with or without differences", "a file cannot be read"},
        {"zavctl diff audio.json", "zavctl diff --all audio.json", "zavctl diff before.json after.json"},
        [this] { diff(); });
    command->add_flag("--all", all_, "Compares all settings of the phone, including those that are not in the file");
    addShowSecrets(command);
    addCommand(
        "reset", "Resets settings to their defaults", {{"KEY", "A key, or a prefix that ends in a dot: Audio."}},
        {"the settings were reset", "a property cannot be written", "no such key, or no key begins with PREFIX."},
        {"zavctl reset Audio.Ringer.Volume", "zavctl reset Audio."},
        [this] { reset(environment_, options_, positional(0)); });
}

void CommandLine::addFileCommands() {
    CLI::App* const command = addCommand("backup", "Writes all settings to a file",
                                         {{"FILE", "The file, readable by its owner only; - is standard output"}},
                                         {"the backup was written", "the file already exists, or cannot be written"},
                                         {"zavctl backup settings.json", "zavctl backup --force settings.json",
                                          "zavctl backup - | gzip >settings.json.gz"},
                                         [this] { backup(environment_, options_, positional(0), replace_); });
    command->add_flag("--force", replace_, "Replaces a file that exists");
    addCommand("restore", "Restores all settings from a backup", {inputFile}, {"the settings were written", refused},
               {"zavctl restore settings.json", "zcat settings.json.gz | zavctl restore -"},
               [this] { restore(environment_, options_, positional(0)); });
}

void CommandLine::provision() {
    const std::chrono::duration<double> timeout(timeoutSeconds_);
    if (wait_) {
        code_ = provisionAndWait(environment_, options_, std::chrono::duration_cast<std::chrono::milliseconds>(timeout),
                                 passLog_);
    } else {
        requestProvisioning(environment_, options_);
    }
}

void CommandLine::diff() {
    std::optional<std::string> after;
    if (positionals_.size() > 1) after = positionals_[1];
    if (all_ && after) throw usageFailure("diff", "--all compares a file with the phone, not with another file");
    diffSettings(environment_, options_, positional(0), after, all_);
}

}  // namespace zavctl
