// Splits a command line into options and positional arguments. The option parser sees the options only: it would
// reinterpret some positional arguments ("--", "{}", "-1"). Options may appear anywhere before "--"; after it
// everything is positional. The value of `set` is taken literally, unless it is one of the tool's own options.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace zavctl {

struct Arguments {
    std::string command;                   // empty if none was given
    std::vector<std::string> options;      // everything for the parser, including the command, in order
    std::vector<std::string> positionals;  // of the command
    std::string error;                     // why the command line is wrong; empty if no error was found
    bool json = false;                     // "--json" is among the options
};

/// `app` defines the commands, their options and how many positional arguments each command takes.
Arguments splitArguments(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace zavctl
