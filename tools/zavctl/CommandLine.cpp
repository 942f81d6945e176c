#include "CommandLine.h"

#include <utility>

#include "Output.h"
#include "ipc/Address.h"

namespace zavctl {

namespace {

// The parser wants the last word first. It gets placeholders for the positional arguments, so that it checks their
// number only.
std::vector<std::string> parserWords(const Arguments& arguments) {
    std::vector<std::string> words(arguments.positionals.size(), "given");
    if (!words.empty()) words.emplace_back("--");
    words.insert(words.end(), arguments.options.rbegin(), arguments.options.rend());
    return words;
}

}  // namespace

Failure usageFailure(const std::string& command, const std::string& reason) {
    return {ExitCode::usage, "usage", reason + " (see zavctl " + (command.empty() ? "" : command + " ") + "--help)"};
}

CommandLine::CommandLine(const Environment& environment) : environment_(environment) {
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
    addLint();
    addPack();
    addUnpack();
    addFleet();
    addHelp();
}

ExitCode CommandLine::run(const std::vector<std::string>& words) {
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

void CommandLine::execute(const Arguments& arguments) {
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

void CommandLine::print(const Failure& failure, bool json) const {
    if (json) {
        printJson(environment_.out, toObject({{"error", failure.name()}, {"reason", failure.what()}}));
    } else {
        printError(environment_.err, failure.what());
    }
}

CLI::App* CommandLine::addCommand(const char* name, const char* description, const std::vector<Positional>& positionals,
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

std::string CommandLine::positional(std::size_t index) const {
    return index < positionals_.size() ? positionals_[index] : std::string();
}

void CommandLine::addShowSecrets(CLI::App* command) {
    command->add_flag("--show-secrets", options_.showSecrets, "Shows passwords and other secrets");
}

void CommandLine::addHelp() {
    CLI::App* const command = addCommand("help", "Shows the help of a command; without one, lists the commands",
                                         {{"COMMAND", "The command", false}}, {}, {}, [this] { help(); });
    command->footer(
        "Exit status:\n  0  the help was printed\n  1  the output could not be written\n"
        "  2  no such command\n\n" +
        exampleLines({"zavctl help", "zavctl help provision"}));
}

void CommandLine::help() {
    if (positionals_.empty()) {
        environment_.out << app_.get_formatter()->make_help(&app_, app_.get_name(), CLI::AppFormatMode::Normal);
        return;
    }
    const std::vector<CLI::App*> found =
        app_.get_subcommands([this](const CLI::App* command) { return command->get_name() == positional(0); });
    if (found.empty()) throw usageFailure("", "unknown command \"" + positional(0) + "\"");
    environment_.out << found.front()->help(app_.get_name());
}

ExitCode run(const std::vector<std::string>& arguments, const Environment& environment) {
    return CommandLine(environment).run(arguments);
}

}  // namespace zavctl
