// Divides a command line into options, which the option parser reads, and positional arguments, which it never sees: it
// would reinterpret some of them ("--", "{}", "-1"). An option may stand anywhere; after "--" everything is positional.
// The last argument of `set` is a value and is taken literally, unless it is one of the tool's own options.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace zavctl {

struct Arguments {
    std::string command;                   // empty: none was given
    std::vector<std::string> options;      // everything for the parser, the command included, in its order
    std::vector<std::string> positionals;  // of the command
    std::string error;                     // why the command line is wrong; empty if nothing was found here
    bool json = false;                     // "--json" is among the options
};

/// `app` says which commands there are, which options, and how many positional arguments a command takes.
Arguments divide(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace zavctl
