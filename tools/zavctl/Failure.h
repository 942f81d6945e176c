// Why a command failed: the exit status and the error message of zavctl.
#pragma once

#include <stdexcept>
#include <string>

namespace zavctl {

/// Scripts rely on the exit statuses: they never change.
enum class ExitCode : int {
    done = 0,
    failed = 1,       // the operation failed: a pass that ended "fail", a value that is not allowed
    usage = 2,        // the command line is wrong
    unreachable = 3,  // the broker or the property service cannot be reached
    noSuchKey = 4,
    timedOut = 5,
};

class Failure : public std::runtime_error {
 public:
    /// `name` identifies the error to programs ("not-found"); `reason` is the message for people.
    Failure(ExitCode code, std::string name, const std::string& reason)
        : runtime_error(reason), code_(code), name_(std::move(name)) {}

    ExitCode code() const { return code_; }
    const std::string& name() const { return name_; }

 private:
    const ExitCode code_;
    const std::string name_;
};

/// Converts the exception being handled to a Failure. Call it from a catch clause only.
Failure currentFailure();

}  // namespace zavctl
