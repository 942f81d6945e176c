// The command line of zavctl: parses it, runs the command, and turns errors into messages and an exit status.
#pragma once

#include <string>
#include <vector>

#include "Environment.h"
#include "Failure.h"

namespace zavctl {

/// `arguments` without the program's name. Never throws.
ExitCode run(std::vector<std::string> arguments, const Environment& environment);

}  // namespace zavctl
