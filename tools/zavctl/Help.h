// The parts of the help that the option parser cannot know: exit statuses and examples.
#pragma once

#include <string>
#include <vector>

namespace zavctl {

/// What stands below the options of a command's help. A command that has no entry gets none.
std::string footerOf(const std::string& command);

/// What stands below the commands of the general help.
std::string generalFooter();

/// The command lines of a command's examples, in the notation of a shell.
std::vector<std::string> examplesOf(const std::string& command);

}  // namespace zavctl
