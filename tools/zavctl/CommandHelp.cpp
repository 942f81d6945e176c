#include "CommandHelp.h"

#include <utility>

namespace zavctl {

std::string exampleLines(const Examples& examples) {
    std::string text = "Examples:";
    for (const std::string& example : examples) text += "\n  " + example;
    return text;
}

std::string footer(const Statuses& statuses, const Examples& examples) {
    const std::vector<std::pair<const char*, const char*>> meanings{
        {"0", statuses.done},        {"1", statuses.failed},    {"2", "the command line is wrong"},
        {"3", statuses.unreachable}, {"4", statuses.noSuchKey}, {"5", statuses.timedOut}};
    std::string text = "Exit status:\n";
    for (const auto& [status, meaning] : meanings) {
        if (meaning != nullptr) text += "  " + std::string(status) + "  " + meaning + "\n";
    }
    return text + "\n" + exampleLines(examples) +
           "\n\nEvery command also accepts --json and --host HOST[:PORT]; see zavctl help.";
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

}  // namespace zavctl
