#include <CLI/CLI.hpp>
#include <functional>
#include <optional>

#include "Arguments.h"
#include "Commands.h"
#include "Lint.h"
#include "Output.h"
#include "ipc/Address.h"

namespace zavctl {

namespace {

constexpr char noBroker[] = "the broker or the property service cannot be reached";
constexpr char noAnswer[] = "the property service did not answer in time";
constexpr char noKey[] = "no such key";
constexpr char noPrefix[] = "no key begins with PREFIX";
constexpr char notWritten[] = "the output could not be written";
constexpr char refused[] = "a setting was refused and nothing written, or the file cannot be read";

struct Positional {
    const char* name;
    const char* description;
    bool required = true;
    bool isRepeated = false;
};

const Positional key{"KEY", "Key of the property"};
const Positional prefix{"PREFIX", "Only keys that begin with it; default: all", false};
const Positional inputFile{"FILE", "The file; - is standard input"};

// What the exit statuses of a command mean; null: the command never exits with it.
struct Statuses {
    const char* done;
    const char* failed = notWritten;
    const char* noSuchKey = nullptr;
    const char* timedOut = noAnswer;
    const char* unreachable = noBroker;
};

using Examples = std::vector<std::string>;

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

Failure usageFailure(const std::string& command, const std::string& reason) {
    return {ExitCode::usage, "usage", reason + " (see zavctl " + (command.empty() ? "" : command + " ") + "--help)"};
}

class CommandLine {
 public:
    explicit CommandLine(const Environment& environment) : environment_(environment) {
        app_.set_version_flag("--version", "zavctl " ZAV_VERSION);
        app_.add_flag("--json", options_.json, "Prints JSON, one object per line, for errors too");
        app_.add_option("--host", options_.host, "The broker: HOST, HOST:PORT or [IPV6]:PORT")
            ->check(ipc::addressError)
            ->capture_default_str();
        app_.footer(generalFooter());
        app_.require_subcommand(1);
        app_.fallthrough();
        addPropertyCommands();
        addProvisioningCommands();
        addTransferCommands();
        addFileCommands();
        addAuthorCommands();
        addPublishingCommands();
        addHelp();
    }

    ExitCode run(const std::vector<std::string>& words) {
        const Arguments arguments = splitArguments(app_, words);
        try {
            execute(arguments);
            environment_.out.flush();
            if (!environment_.out) throw Failure(ExitCode::failed, "failed", notWritten);
            return code_;
        } catch (...) {
            const Failure failure = currentFailure();
            print(failure, arguments.json);
            return failure.code();
        }
    }

 private:
    void execute(const Arguments& arguments) {
        try {
            if (!arguments.error.empty()) throw usageFailure(arguments.command, arguments.error);
            positionals_ = arguments.positionals;
            app_.parse(parserWords(arguments));
        } catch (const CLI::Success& success) {  // help and version
            app_.exit(success, environment_.out, environment_.err);
        } catch (const CLI::RequiredError& error) {
            throw usageFailure(arguments.command, arguments.command.empty() ? "no command given" : error.what());
        } catch (const CLI::ParseError& error) {
            throw usageFailure(arguments.command, error.what());
        }
    }

    void print(const Failure& failure, bool json) const {
        if (json) {
            printJson(environment_.out, toObject({{"error", failure.name()}, {"reason", failure.what()}}));
        } else {
            printError(environment_.err, failure.what());
        }
    }

    // The parser wants the last word first. It gets placeholders for the positional arguments, so that it checks their
    // number only.
    static std::vector<std::string> parserWords(const Arguments& arguments) {
        std::vector<std::string> words(arguments.positionals.size(), "given");
        if (!words.empty()) words.emplace_back("--");
        words.insert(words.end(), arguments.options.rbegin(), arguments.options.rend());
        return words;
    }

    CLI::App* addCommand(const char* name, const char* description, const std::vector<Positional>& positionals,
                         const Statuses& statuses, const Examples& examples, std::function<void()> action) {
        CLI::App* const command = app_.add_subcommand(name, description);
        for (const Positional& one : positionals) {
            if (one.isRepeated) {
                command->add_option(one.name, manyIgnored_, one.description)->required(one.required);
            } else {
                command->add_option(one.name, ignored_, one.description)->required(one.required);
            }
        }
        command->footer(footer(statuses, examples));
        command->final_callback(std::move(action));
        return command;
    }

    /// The command's n-th positional argument, "" if it was left out.
    std::string positional(std::size_t index) const {
        return index < positionals_.size() ? positionals_[index] : std::string();
    }

    void addShowSecrets(CLI::App* command) {
        command->add_flag("--show-secrets", options_.showSecrets, "Shows passwords and other secrets");
    }

    void addPropertyCommands() {
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
        addCommand("watch", "Prints changes as they happen, until interrupted", {prefix},
                   {"interrupted (Ctrl-C, SIGTERM)"}, {"zavctl watch", "zavctl watch State. --json"},
                   [this] { watch(environment_, options_, positional(0)); });
    }

    void addProvisioningCommands() {
        CLI::App* const command =
            addCommand("provision", "Requests a provisioning pass", {},
                       {"the pass was requested; with --wait: it ended success or partSuccess",
                        "the pass ended fail, or the request was refused", nullptr,
                        "the pass did not end within the time-out; it may continue"},
                       {"zavctl provision", "zavctl provision --wait --timeout 120"}, [this] { provision(); });
        command->add_flag("--wait", wait_,
                          "Waits for the end of the pass; prints its result, and why it is not success");
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

    // Each command needs a variable of its own: the environment also sets the options of commands that are not run.
    static void addLog(CLI::App* command, std::string& path) {
        command->add_option("--log", path, "File with the daemon's log; default: the journal of zavd.service")
            ->envname("ZAVD_LOG");
    }

    void addExplain() {
        CLI::App* const command = addCommand(
            "explain", "Shows what a phone would do with provisioning files, and why; changes nothing",
            {{"SOURCE", "The server's folder, an initial file, or its URL"}},
            {"the pass would end success or partSuccess", "the pass would end fail, or a file cannot be read"},
            {"zavctl explain phones/ --as phone.json", "zavctl explain phones/provisioning.xml --key phone.key",
             "zavctl explain https://server.example/phones/ --as running"},
            [this] { code_ = explain(environment_, options_, positional(0), explained_); });
        command->add_option(
            "--as", explained_.as,
            "The phone: a file in the format of export, or \"running\"; default: the catalogue's defaults");
        command->add_option("--catalogue", explained_.catalogue, "The phone's catalogue; default: the installed one");
        command->add_option("--key", explained_.key, "File with the phone's pass phrase; default: /etc/zav.d/key");
        command->add_option("--base", explained_.base,
                            "The URL that the folder stands for; default: the server's, up to its first placeholder");
        addShowSecrets(command);
    }

    void addTransferCommands() {
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
        command->add_flag("--all", all_,
                          "Compares all settings of the phone, including those that are not in the file");
        addShowSecrets(command);
        addCommand(
            "reset", "Resets settings to their defaults", {{"KEY", "A key, or a prefix that ends in a dot: Audio."}},
            {"the settings were reset", "a property cannot be written", "no such key, or no key begins with PREFIX."},
            {"zavctl reset Audio.Ringer.Volume", "zavctl reset Audio."},
            [this] { reset(environment_, options_, positional(0)); });
    }

    void addFileCommands() {
        CLI::App* const command =
            addCommand("backup", "Writes all settings to a file",
                       {{"FILE", "The file, readable by its owner only; - is standard output"}},
                       {"the backup was written", "the file already exists, or cannot be written"},
                       {"zavctl backup settings.json", "zavctl backup --force settings.json",
                        "zavctl backup - | gzip >settings.json.gz"},
                       [this] { backup(environment_, options_, positional(0), replace_); });
        command->add_flag("--force", replace_, "Replaces a file that exists");
        addCommand("restore", "Restores all settings from a backup", {inputFile},
                   {"the settings were written", refused},
                   {"zavctl restore settings.json", "zcat settings.json.gz | zavctl restore -"},
                   [this] { restore(environment_, options_, positional(0)); });
    }

    void addAuthorCommands() {
        CLI::App* const command =
            addCommand("lint", "Finds mistakes in provisioning files before they are published",
                       {{"FILE", "Files, folders, URLs; - is standard input", false, true}},
                       {"no error was found; there may be warnings", "an error was found", nullptr, noAnswer},
                       {"zavctl lint provisioning.xml", "zavctl lint /srv/www --base https://server.example/phones/",
                        "zavctl lint https://server.example/phones/provisioning.xml", "zavctl lint --rules"},
                       [this] {
                           if (positionals_.empty() && !lint_.rules) throw usageFailure("lint", "FILE is required");
                           code_ = lintFiles(environment_, options_, lint_, positionals_);
                       });
        command->add_option("--catalogue", lint_.catalogue, "The keys of the phone; default: the installed catalogue");
        command->add_option("--as", lint_.phone, "running: the files are for the phone at --host, with its keys")
            ->check(CLI::IsMember({"running"}));
        command->add_option("--key", lint_.keyFile, "The phone's key file, for encrypted files")->capture_default_str();
        command->add_option("--base", lint_.baseUrl, "The URL under which the files are published");
        command->add_flag("--offline", lint_.offline, "Downloads nothing");
        command->add_flag("--rules", lint_.rules, "Prints the rules instead");
    }

    // They need no phone.
    void addPublishing(const char* name, const char* description, const std::vector<Positional>& positionals,
                       const char* done, const char* failed, const Examples& examples, const char* force,
                       std::function<void()> action) {
        CLI::App* const command = addCommand(name, description, positionals, {done, failed, nullptr, nullptr, nullptr},
                                             examples, std::move(action));
        command->add_option("--key", publish_.key, "File with the pass phrase, a copy of the phones' key")->required();
        if (positionals.size() == 1) {
            command->add_option("--to", publish_.to, "The folder that is written; made if it is missing")->required();
        }
        command->add_flag("--force", publish_.force, force);
        if (std::string(name) != "unpack") {
            command->add_option("--catalogue", publish_.catalogue,
                                "The keys of the phones; default: the installed catalogue");
        }
        command->add_flag("--dry-run", publish_.dryRun, "Shows what would be written, and writes nothing");
    }

    void addPublishingCommands() {
        addPublishing("pack", "Encrypts a folder of provisioning files for the phones", {{"DIR", "The plain files"}},
                      "the folder is published",
                      "a file is wrong and nothing was published, or a folder cannot be read or written",
                      {"zavctl pack phones --key phone.key --to /srv/phones",
                       "zavctl pack phones --key phone.key --to /srv/phones --delete --dry-run"},
                      "Publishes in spite of mistakes in provisioning files",
                      [this] { code_ = pack(environment_, options_, positional(0), publish_); });
        app_.get_subcommand("pack")->add_flag("--delete", publish_.removeVanished,
                                              "Removes published files that are no longer in DIR");
        addPublishing("unpack", "Decrypts a published folder", {{"DIR", "The published files"}},
                      "the folder is decrypted",
                      "a file cannot be decrypted or would be replaced, and nothing was written",
                      {"zavctl unpack /srv/phones --key phone.key --to phones"}, "Replaces files that exist and differ",
                      [this] { code_ = unpack(environment_, options_, positional(0), publish_); });
        addPublishing(
            "fleet", "Makes and encrypts the files of many phones from a table",
            {{"TABLE", "Comma-separated values in UTF-8; the first row names the columns"},
             {"TEMPLATE", "A file, or a folder, with {column} where a row's value belongs"},
             {"OUT", "The folder that is written; made if it is missing"}},
            "all rows are published", "rows failed, and the others are published; or nothing was published",
            {"zavctl fleet phones.csv template /srv/phones --key phone.key",
             "zavctl fleet phones.csv phone.xml /srv/phones --name '{MACD}/provisioning.xml' --key phone.key"},
            "Publishes in spite of mistakes in provisioning files", [this] {
                publish_.to = positional(2);
                code_ = fleet(environment_, options_, positional(0), positional(1), publish_);
            });
        CLI::App* const command = app_.get_subcommand("fleet");
        command->add_option("--name", publish_.place, "Where a single TEMPLATE goes below OUT; default: its own name");
        command->add_option("--errors", publish_.errors, "File for all rows that failed; on the screen are 20 at most");
    }

    void addHelp() {
        CLI::App* const command = addCommand("help", "Shows the help of a command; without one, lists the commands",
                                             {{"COMMAND", "The command", false}}, {}, {}, [this] { help(); });
        command->footer(
            "Exit status:\n  0  the help was printed\n  1  the output could not be written\n"
            "  2  no such command\n\n" +
            exampleLines({"zavctl help", "zavctl help provision"}));
    }

    void provision() {
        const std::chrono::duration<double> timeout(timeoutSeconds_);
        if (wait_) {
            code_ = provisionAndWait(environment_, options_,
                                     std::chrono::duration_cast<std::chrono::milliseconds>(timeout), passLog_);
        } else {
            requestProvisioning(environment_, options_);
        }
    }

    void diff() {
        std::optional<std::string> after;
        if (positionals_.size() > 1) after = positionals_[1];
        if (all_ && after) throw usageFailure("diff", "--all compares a file with the phone, not with another file");
        diffSettings(environment_, options_, positional(0), after, all_);
    }

    void help() {
        if (positionals_.empty()) {
            environment_.out << app_.get_formatter()->make_help(&app_, app_.get_name(), CLI::AppFormatMode::Normal);
            return;
        }
        const std::vector<CLI::App*> found =
            app_.get_subcommands([this](const CLI::App* command) { return command->get_name() == positional(0); });
        if (found.empty()) throw usageFailure("", "unknown command \"" + positional(0) + "\"");
        environment_.out << found.front()->help(app_.get_name());
    }

    const Environment& environment_;
    CLI::App app_{"Inspects and controls a phone through its property service.", "zavctl"};
    Options options_;
    std::vector<std::string> positionals_;
    std::string ignored_;  // where the parser stores the placeholders of the positional arguments
    std::vector<std::string> manyIgnored_;
    LintOptions lint_;
    bool all_ = false;
    bool apply_ = false;
    bool replace_ = false;
    bool wait_ = false;
    double timeoutSeconds_ = 300;
    std::string passLog_;
    std::string doctorLog_;
    PublishOptions publish_;
    ExplainOptions explained_;
    ExitCode code_ = ExitCode::done;
};

}  // namespace

ExitCode run(const std::vector<std::string>& arguments, const Environment& environment) {
    return CommandLine(environment).run(arguments);
}

}  // namespace zavctl
