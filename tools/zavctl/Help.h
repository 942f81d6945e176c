// The parts of the help that the option parser does not generate: exit statuses and examples.
#pragma once

#include <string>
#include <vector>

namespace zavctl {

/// Exit statuses and examples of a command, printed below its options. Empty for an unknown command.
std::string footerOf(const std::string& command);

/// Exit statuses and examples of the general help, printed below the commands.
std::string generalFooter();

/// The examples of a command, as shell command lines.
std::vector<std::string> examplesOf(const std::string& command);

}  // namespace zavctl
