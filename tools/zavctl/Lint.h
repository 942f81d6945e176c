// The command `zavctl lint`.
#pragma once

#include <string>
#include <vector>

#include "Commands.h"

namespace zavctl {

struct LintOptions {
    std::string catalogue;  // empty: that of the phone, or the installed one
    std::string phone;      // "running": what the phone knows counts; empty: no phone
    std::string keyFile = "/etc/zav.d/key";
    std::string baseUrl;
    bool offline = false;
    bool rules = false;  // prints the rules instead
};

/// Prints what is wrong with the files. ExitCode::failed if there is an error among the findings. Throws a Failure with
/// ExitCode::usage for a path that cannot be read.
ExitCode lintFiles(const Environment& environment, const Options& options, const LintOptions& lintOptions,
                   const std::vector<std::string>& paths);

}  // namespace zavctl
