#include "Help.h"

#include <algorithm>

namespace zavctl {

namespace {

struct CommandHelp {
    const char* command;
    // Null: the command never exits with this status.
    const char* done;
    const char* failed;
    const char* noSuchKey;
    const char* timedOut;
    std::vector<std::string> examples;
};

constexpr char noAnswer[] = "the property service did not answer in time";
constexpr char noKey[] = "no such key";
constexpr char noPrefix[] = "no key begins with PREFIX";
constexpr char notWritten[] = "the output could not be written";

const std::vector<CommandHelp>& commands() {
    static const std::vector<CommandHelp> all{
        {"get",
         "the value was printed",
         notWritten,
         noKey,
         noAnswer,
         {"zavctl get NET.MAC.Address", "zavctl get System.Provision.Period --json"}},
        {"set",
         "the value was written",
         "the value is not allowed, or the property cannot be written",
         noKey,
         noAnswer,
         {"zavctl set System.Provision.ProvisioningServer https://server.example/phones/",
          "zavctl set System.General.Location ''", "zavctl set System.General.Location -- --json"}},
        {"list",
         "properties were printed",
         notWritten,
         noPrefix,
         noAnswer,
         {"zavctl list NET.", "zavctl list --show-secrets System.Provision."}},
        {"keys", "keys were printed", notWritten, noPrefix, noAnswer, {"zavctl keys State."}},
        {"describe",
         "the definition was printed",
         notWritten,
         noKey,
         noAnswer,
         {"zavctl describe System.Reboot.Automatic.Hour"}},
        {"watch",
         "interrupted (Ctrl-C, SIGTERM)",
         notWritten,
         nullptr,
         noAnswer,
         {"zavctl watch", "zavctl watch State. --json"}},
        {"provision",
         "the pass was requested; with --wait: it ended success or partSuccess",
         "the pass ended fail, or the request was refused",
         nullptr,
         "the pass did not end within the time-out; it may continue",
         {"zavctl provision", "zavctl provision --wait --timeout 120"}},
        {"status", "the status was printed", notWritten, nullptr, noAnswer, {"zavctl status", "zavctl status --json"}},
        {"doctor",
         "no error was found",
         "an error was found",
         nullptr,
         nullptr,
         {"zavctl doctor", "zavctl doctor --json"}},
        {"export",
         "settings were printed",
         notWritten,
         "no setting begins with PREFIX",
         noAnswer,
         {"zavctl export Audio. >audio.json", "zavctl export --show-secrets >all.json"}},
        {"import",
         "the changes were shown; with --apply: written",
         "a setting was refused and nothing written, or the file cannot be read",
         "none of the refused keys exists",
         noAnswer,
         {"zavctl import audio.json", "zavctl import --apply audio.json", "zavctl import - <audio.json"}},
        {"diff",
         "the comparison was printed, with or without differences",
         "a file cannot be read",
         nullptr,
         noAnswer,
         {"zavctl diff audio.json", "zavctl diff --all audio.json", "zavctl diff before.json after.json"}},
        {"reset",
         "the settings were reset",
         "a property cannot be written",
         "no such key, or no key begins with PREFIX.",
         noAnswer,
         {"zavctl reset Audio.Ringer.Volume", "zavctl reset Audio."}},
        {"backup",
         "the backup was written",
         "the file already exists, or cannot be written",
         nullptr,
         noAnswer,
         {"zavctl backup settings.json", "zavctl backup --force settings.json",
          "zavctl backup - | gzip >settings.json.gz"}},
        {"restore",
         "the settings were written",
         "a setting was refused and nothing written, or the file cannot be read",
         nullptr,
         noAnswer,
         {"zavctl restore settings.json", "zcat settings.json.gz | zavctl restore -"}},
        {"help", "the help was printed", notWritten, nullptr, nullptr, {"zavctl help", "zavctl help provision"}},
    };
    return all;
}

const CommandHelp* entryOf(const std::string& command) {
    const auto found = std::find_if(commands().begin(), commands().end(),
                                    [&command](const CommandHelp& entry) { return entry.command == command; });
    return found == commands().end() ? nullptr : &*found;
}

std::string exampleLines(const std::vector<std::string>& examples) {
    std::string text = "Examples:";
    for (const std::string& example : examples) text += "\n  " + example;
    return text;
}

}  // namespace

std::string footerOf(const std::string& command) {
    const CommandHelp* const entry = entryOf(command);
    if (entry == nullptr) return {};
    std::string text = "Exit status:\n";
    const auto add = [&text](const char* code, const char* meaning) {
        if (meaning != nullptr) text += "  " + std::string(code) + "  " + meaning + "\n";
    };
    const bool usesPhone = command != "help";
    add("0", entry->done);
    add("1", entry->failed);
    add("2", command == "help" ? "no such command" : "the command line is wrong");
    add("3", usesPhone ? "the broker or the property service cannot be reached" : nullptr);
    add("4", entry->noSuchKey);
    add("5", entry->timedOut);
    text += "\n" + exampleLines(entry->examples);
    if (usesPhone) text += "\n\nEvery command also accepts --json and --host HOST[:PORT]; see zavctl help.";
    return text;
}

std::string generalFooter() {
    return "Exit status: 0 done (also a pass that ended partSuccess), 1 the operation failed (a pass that ended fail, "
           "a value\n"
           "that is not allowed), 2 usage, 3 broker or property service unreachable, 4 no such key, 5 timed out.\n"
           "\n" +
           exampleLines({"zavctl set System.Provision.ProvisioningServer https://server.example/phones/",
                         "zavctl provision --wait --timeout 120", "zavctl list NET.", "zavctl watch State. --json",
                         "zavctl export Audio. >audio.json; zavctl import audio.json --apply"}) +
           "\n\n"
           "See zavctl help COMMAND for the options, exit statuses and examples of a command.";
}

std::vector<std::string> examplesOf(const std::string& command) {
    const CommandHelp* const entry = entryOf(command);
    return entry == nullptr ? std::vector<std::string>() : entry->examples;
}

}  // namespace zavctl
