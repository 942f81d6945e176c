// The command line of the kit.
#pragma once

namespace conformance {

/// The whole program: reads the options, runs the checks, prints the report. Returns the exit status.
int run(int argc, char** argv);

}  // namespace conformance
