// The command line of zavctl: its commands with their arguments, options and help, and the run of one of them. The
// commands are added subject by subject, each in a source of its own. Made for one run, by one thread.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "Arguments.h"
#include "CommandHelp.h"
#include "Commands.h"
#include "Lint.h"

namespace zavctl {

Failure usageFailure(const std::string& command, const std::string& reason);

struct Positional {
    const char* name;
    const char* description;
    bool required = true;
    bool isRepeated = false;
};

class CommandLine {
 public:
    explicit CommandLine(const Environment& environment);

    /// `words` are without the program's name. Never throws.
    ExitCode run(const std::vector<std::string>& words);

 private:
    void execute(const Arguments& arguments);
    void print(const Failure& failure, bool json) const;

    CLI::App* addCommand(const char* name, const char* description, const std::vector<Positional>& positionals,
                         const Statuses& statuses, const Examples& examples, std::function<void()> action);
    void addShowSecrets(CLI::App* command);
    void addHelp();
    void help();

    /// The command's n-th positional argument, "" if it was left out.
    std::string positional(std::size_t index) const;

    // CommandLinePhone.cpp: what talks to a phone
    void addPropertyCommands();
    void addProvisioningCommands();
    void addTransferCommands();
    void addFileCommands();
    void provision();
    void diff();

    // CommandLineAuthor.cpp: what works on provisioning files
    void addExplain();
    void addLint();
    void addPublishing(const char* name, const char* description, const std::vector<Positional>& positionals,
                       const char* done, const char* failed, const Examples& examples, const char* force,
                       std::function<void()> action);
    void addPack();
    void addUnpack();
    void addFleet();

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

}  // namespace zavctl
