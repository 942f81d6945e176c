#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>

#include "Commands.h"
#include "Failure.h"
#include "Output.h"

namespace zavctl {

namespace {

constexpr char examples[] =
    "Exit status: 0 done (also a pass that ended partSuccess), 1 the operation failed (a pass that ended fail, a "
    "value\n"
    "that is not allowed), 2 usage, 3 bus or property service unreachable, 4 no such key, 5 timed out.\n"
    "\n"
    "Examples:\n"
    "  zavctl set System.Provision.ProvisioningServer https://server.example/phones/\n"
    "  zavctl provision --wait --timeout 120\n"
    "  zavctl list NET.\n"
    "  zavctl watch State. --json\n"
    "  zavctl export Audio. >audio.json; zavctl import audio.json --apply";

bool isOption(const std::string& argument) { return argument.size() > 1 && argument.front() == '-'; }

// A value is taken as it stands: "-1", "", "[a,b]" and "--" are values too, and the option parser would read its own
// meaning into them. So it is taken out of `set KEY VALUE` before the parser sees it, and a stand-in left.
std::optional<std::string> takeValue(std::vector<std::string>& arguments) {
    static const std::vector<std::string> flags{"--json", "--help", "-h"};
    bool command = false;
    bool key = false;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        std::string& argument = arguments[at];
        if (std::find(flags.begin(), flags.end(), argument) != flags.end() || argument.compare(0, 7, "--host=") == 0) {
            continue;
        }
        if (argument == "--host") {
            ++at;
        } else if (key) {
            if (argument == "--" && at + 1 < arguments.size()) {
                arguments.erase(arguments.begin() + static_cast<std::ptrdiff_t>(at));
            }
            std::string value = std::move(arguments[at]);
            arguments[at] = "VALUE";
            return value;
        } else if (command) {
            if (isOption(argument)) return std::nullopt;  // unknown: the parser says so
            key = true;
        } else if (argument == "set") {
            command = true;
        } else {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

class CommandLine {
 public:
    explicit CommandLine(const Environment& environment) : environment_(environment) {
        app_.set_version_flag("--version", "zavctl " ZAV_VERSION);
        app_.add_flag("--json", options_.json, "Prints JSON, one object a line; also for errors");
        app_.add_option("--host", options_.host, "The broker, as HOST or HOST:PORT")->capture_default_str();
        app_.footer(examples);
        app_.require_subcommand(1);
        app_.fallthrough();

        CLI::App* const getCommand = app_.add_subcommand("get", "Prints the value of a property");
        getCommand->add_option("KEY", key_, "The property's key")->required();
        getCommand->final_callback([this] { code_ = get(environment_, options_, key_); });

        CLI::App* const setCommand = app_.add_subcommand("set", "Writes the value of a property");
        setCommand->add_option("KEY", key_, "The property's key")->required();
        setCommand->add_option("VALUE", standIn_, "The value, taken as it stands")->required();
        setCommand->final_callback([this] { code_ = set(environment_, options_, key_, value_); });

        CLI::App* const listCommand = app_.add_subcommand("list", "Prints properties, sorted by key");
        listCommand->add_option("PREFIX", prefix_, "How their keys begin; default: all");
        showSecrets(listCommand);
        listCommand->final_callback([this] { code_ = list(environment_, options_, prefix_); });

        CLI::App* const watchCommand = app_.add_subcommand("watch", "Prints changes as they happen, until interrupted");
        watchCommand->add_option("PREFIX", prefix_, "How their keys begin; default: all");
        watchCommand->final_callback([this] { code_ = watch(environment_, options_, prefix_); });

        CLI::App* const provisionCommand = app_.add_subcommand("provision", "Asks for a provisioning pass");
        provisionCommand->add_flag("--wait", wait_, "Follows the pass to its end; prints result and HTTP status");
        provisionCommand->add_option("--timeout", timeoutSeconds_, "Seconds to wait at most")
            ->check(CLI::Range(0.001, 1e6))
            ->capture_default_str();
        provisionCommand->final_callback([this] {
            const std::chrono::duration<double> timeout(timeoutSeconds_);
            code_ = provision(environment_, options_, wait_,
                              std::chrono::duration_cast<std::chrono::milliseconds>(timeout));
        });

        addTransferCommands();

        app_.add_subcommand("status", "Prints server, last result, user interface lock, versions and period")
            ->final_callback([this] { code_ = status(environment_, options_); });
    }

    ExitCode run(std::vector<std::string> arguments) {
        // For errors that come before the option is read.
        options_.json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
        if (std::optional<std::string> value = takeValue(arguments)) value_ = std::move(*value);
        std::reverse(arguments.begin(), arguments.end());  // as the parser wants it
        try {
            app_.parse(std::move(arguments));
            return flushed();
        } catch (const CLI::Success& success) {  // help and version
            app_.exit(success, environment_.out, environment_.err);
            return ExitCode::done;
        } catch (const CLI::ParseError& error) {
            printFailure(environment_.out, environment_.err, options_.json,
                         {ExitCode::usage, "usage", reasonOf(error) + " (zavctl --help explains)"});
            return ExitCode::usage;
        } catch (...) {
            const Failure failure = currentFailure();
            printFailure(environment_.out, environment_.err, options_.json, failure);
            return failure.code();
        }
    }

 private:
    void showSecrets(CLI::App* command) {
        command->add_flag("--show-secrets", options_.showSecrets, "Shows passwords and the like as they are");
    }

    void addTransferCommands() {
        CLI::App* const describeCommand = app_.add_subcommand("describe", "Prints what a property may hold");
        describeCommand->add_option("KEY", key_, "The property's key")->required();
        describeCommand->final_callback([this] { code_ = describe(environment_, options_, key_); });

        CLI::App* const keysCommand = app_.add_subcommand("keys", "Prints the names of properties");
        keysCommand->add_option("PREFIX", prefix_, "How they begin; default: all");
        keysCommand->final_callback([this] { code_ = keys(environment_, options_, prefix_); });

        CLI::App* const resetCommand = app_.add_subcommand("reset", "Takes settings back to their defaults");
        resetCommand->add_option("KEY", key_, "A key, or how many begin, with a dot at its end: Audio.")->required();
        resetCommand->final_callback([this] { code_ = reset(environment_, options_, key_); });

        CLI::App* const exportCommand = app_.add_subcommand("export", "Prints settings as a file for import");
        exportCommand->add_option("PREFIX", prefix_, "How their keys begin; default: all");
        showSecrets(exportCommand);
        exportCommand->final_callback([this] { code_ = exportSettings(environment_, options_, prefix_); });

        CLI::App* const importCommand =
            app_.add_subcommand("import", "Shows what a file of settings would change; --apply changes it");
        importCommand->add_option("FILE", file_, "The file; - is the standard input")->required();
        importCommand->add_flag("--apply", apply_, "Writes all of it, or nothing if any of it is refused");
        showSecrets(importCommand);
        importCommand->final_callback([this] { code_ = importSettings(environment_, options_, file_, apply_); });

        CLI::App* const diffCommand = app_.add_subcommand("diff", "Compares two files of settings");
        diffCommand->add_option("A", file_, "A file")->required();
        diffCommand->add_option("B", otherFile_, "Another file; default: the phone");
        showSecrets(diffCommand);
        diffCommand->final_callback([this] { code_ = diffSettings(environment_, options_, file_, otherFile_); });

        CLI::App* const backupCommand = app_.add_subcommand("backup", "Writes all settings into a file");
        backupCommand->add_option("FILE", file_, "The file; only its owner may read it")->required();
        backupCommand->add_flag("--force", replace_, "Replaces a file that exists");
        backupCommand->final_callback([this] { code_ = backup(environment_, options_, file_, replace_); });

        CLI::App* const restoreCommand = app_.add_subcommand("restore", "Writes back all settings of a backup");
        restoreCommand->add_option("FILE", file_, "The file")->required();
        restoreCommand->final_callback([this] { code_ = restore(environment_, options_, file_); });
    }

    std::string reasonOf(const CLI::ParseError& error) const {
        if (!app_.get_subcommands().empty()) return error.what();
        const std::vector<std::string> remaining = app_.remaining();
        return remaining.empty() ? "no command given" : "there is no command \"" + remaining.front() + "\"";
    }

    ExitCode flushed() {
        environment_.out.flush();
        if (environment_.out) return code_;
        throw Failure(ExitCode::failed, "failed", "the output could not be written");
    }

    const Environment& environment_;
    CLI::App app_{"Looks into and steers a phone through its property service.", "zavctl"};
    Options options_;
    std::string key_;
    std::string value_;
    std::string standIn_;
    std::string prefix_;
    std::string file_;
    std::string otherFile_;
    bool apply_ = false;
    bool replace_ = false;
    bool wait_ = false;
    double timeoutSeconds_ = 300;
    ExitCode code_ = ExitCode::done;
};

}  // namespace

ExitCode run(std::vector<std::string> arguments, const Environment& environment) {
    return CommandLine(environment).run(std::move(arguments));
}

}  // namespace zavctl
