// The command line of zavctl: reads it, runs the command, and turns what went wrong into words and an exit status.
#pragma once

#include <string>
#include <vector>

#include "Environment.h"
#include "ExitCode.h"

namespace zavctl {

/// `arguments` without the program's name. Never throws.
ExitCode run(std::vector<std::string> arguments, const Environment& environment);

}  // namespace zavctl
