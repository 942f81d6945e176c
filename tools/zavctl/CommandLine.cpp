#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>

#include "Arguments.h"
#include "Commands.h"
#include "Failure.h"
#include "Help.h"
#include "Output.h"
#include "ipc/Address.h"

namespace zavctl {

namespace {

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
        CLI::App* const helpCommand = addCommand("help", "Shows the help of a command; without one, lists the commands",
                                                 [this] { return help(); });
        addPositional(helpCommand, "COMMAND", "The command", false);
    }

    ExitCode run(const std::vector<std::string>& words) {
        const Arguments arguments = splitArguments(app_, words);
        try {
            execute(arguments);
            environment_.out.flush();
            if (!environment_.out) throw Failure(ExitCode::failed, "failed", "the output could not be written");
            return code_;
        } catch (...) {
            const Failure failure = currentFailure();
            printFailure(environment_.out, environment_.err, arguments.json, failure);
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

    // The parser wants the last word first. It gets placeholders for the positional arguments, so that it checks their
    // number only.
    static std::vector<std::string> parserWords(const Arguments& arguments) {
        std::vector<std::string> words(arguments.positionals.size(), "given");
        if (!words.empty()) words.emplace_back("--");
        words.insert(words.end(), arguments.options.rbegin(), arguments.options.rend());
        return words;
    }

    CLI::App* addCommand(const char* name, const char* description, std::function<ExitCode()> action) {
        CLI::App* const command = app_.add_subcommand(name, description);
        command->footer(footerOf(name));
        command->final_callback([this, action = std::move(action)] { code_ = action(); });
        return command;
    }

    void addPositional(CLI::App* command, const char* name, const char* description, bool required) {
        command->add_option(name, ignored_, description)->required(required);
    }

    /// The command's n-th positional argument, "" if it was left out.
    std::string positional(std::size_t index) const {
        return index < positionals_.size() ? positionals_[index] : std::string();
    }

    void addShowSecrets(CLI::App* command) {
        command->add_flag("--show-secrets", options_.showSecrets, "Shows passwords and other secrets");
    }

    void addPropertyCommands() {
        CLI::App* command = addCommand("get", "Prints the value of a property",
                                       [this] { return get(environment_, options_, positional(0)); });
        addPositional(command, "KEY", "Key of the property", true);

        command = addCommand("set", "Writes the value of a property",
                             [this] { return set(environment_, options_, positional(0), positional(1)); });
        addPositional(command, "KEY", "Key of the property", true);
        addPositional(command, "VALUE", "The value, taken literally; put \"--\" before a value that is also an option",
                      true);

        command = addCommand("list", "Prints properties, sorted by key",
                             [this] { return list(environment_, options_, positional(0)); });
        addPositional(command, "PREFIX", "Only keys that begin with it; default: all", false);
        addShowSecrets(command);

        command = addCommand("keys", "Prints the keys of properties",
                             [this] { return keys(environment_, options_, positional(0)); });
        addPositional(command, "PREFIX", "Only keys that begin with it; default: all", false);

        command = addCommand("describe", "Prints the definition of a property",
                             [this] { return describe(environment_, options_, positional(0)); });
        addPositional(command, "KEY", "Key of the property", true);

        command = addCommand("watch", "Prints changes as they happen, until interrupted",
                             [this] { return watch(environment_, options_, positional(0)); });
        addPositional(command, "PREFIX", "Only keys that begin with it; default: all", false);
    }

    void addProvisioningCommands() {
        CLI::App* const command = addCommand("provision", "Requests a provisioning pass", [this] {
            const std::chrono::duration<double> timeout(timeoutSeconds_);
            return provision(environment_, options_, wait_,
                             std::chrono::duration_cast<std::chrono::milliseconds>(timeout));
        });
        command->add_flag("--wait", wait_, "Waits for the end of the pass; prints its result and HTTP status");
        command->add_option("--timeout", timeoutSeconds_, "Time-out in seconds")
            ->check(CLI::Range(0.001, 1e6))
            ->capture_default_str();
        addCommand("status", "Prints server, last result, user interface lock, versions and period",
                   [this] { return status(environment_, options_); });
        addCommand("doctor", "Finds out why the phone does not provision, and changes nothing",
                   [this] { return doctor(environment_, options_, log_); })
            ->add_option("--log", log_, "File with the daemon's log; default: the journal of zavd.service")
            ->envname("ZAVD_LOG");
    }

    void addTransferCommands() {
        CLI::App* command = addCommand("export", "Prints settings in the format that import reads",
                                       [this] { return exportSettings(environment_, options_, positional(0)); });
        addPositional(command, "PREFIX", "Only keys that begin with it; default: all", false);
        addShowSecrets(command);

        command = addCommand("import", "Shows what a settings file would change; --apply writes it",
                             [this] { return importSettings(environment_, options_, positional(0), apply_); });
        addPositional(command, "FILE", "The file; - is standard input", true);
        command->add_flag("--apply", apply_, "Writes all changes, or none if any is refused");
        addShowSecrets(command);

        command = addCommand("diff", "Compares a settings file with another file or with the phone",
                             [this] { return diff(); });
        addPositional(command, "A", "A file; - is standard input", true);
        addPositional(command, "B", "Another file; default: the phone, for the keys in A", false);
        command->add_flag("--all", all_,
                          "Compares all settings of the phone, including those that are not in the file");
        addShowSecrets(command);

        command = addCommand("reset", "Resets settings to their defaults",
                             [this] { return reset(environment_, options_, positional(0)); });
        addPositional(command, "KEY", "A key, or a prefix that ends in a dot: Audio.", true);
    }

    void addFileCommands() {
        CLI::App* command = addCommand("backup", "Writes all settings to a file",
                                       [this] { return backup(environment_, options_, positional(0), replace_); });
        addPositional(command, "FILE", "The file, readable by its owner only; - is standard output", true);
        command->add_flag("--force", replace_, "Replaces a file that exists");

        command = addCommand("restore", "Restores all settings from a backup",
                             [this] { return restore(environment_, options_, positional(0)); });
        addPositional(command, "FILE", "The file; - is standard input", true);
    }

    ExitCode diff() {
        if (positionals_.size() == 1) return diffSettings(environment_, options_, positionals_[0], std::nullopt, all_);
        if (all_) throw usageFailure("diff", "--all compares a file with the phone, not with another file");
        return diffSettings(environment_, options_, positionals_[0], positionals_[1], false);
    }

    ExitCode help() {
        if (positionals_.empty()) {
            environment_.out << app_.get_formatter()->make_help(&app_, app_.get_name(), CLI::AppFormatMode::Normal);
            return ExitCode::done;
        }
        const std::vector<CLI::App*> found =
            app_.get_subcommands([this](const CLI::App* command) { return command->get_name() == positional(0); });
        if (found.empty()) throw usageFailure("", "unknown command \"" + positional(0) + "\"");
        environment_.out << found.front()->help(app_.get_name());
        return ExitCode::done;
    }

    const Environment& environment_;
    CLI::App app_{"Inspects and controls a phone through its property service.", "zavctl"};
    Options options_;
    std::vector<std::string> positionals_;
    std::string ignored_;  // where the parser stores the placeholders of the positional arguments
    bool all_ = false;
    bool apply_ = false;
    bool replace_ = false;
    bool wait_ = false;
    double timeoutSeconds_ = 300;
    std::string log_;
    ExitCode code_ = ExitCode::done;
};

}  // namespace

ExitCode run(std::vector<std::string> arguments, const Environment& environment) {
    return CommandLine(environment).run(arguments);
}

}  // namespace zavctl
