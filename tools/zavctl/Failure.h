// Why a command failed: the exit status and the error message of zavctl.
#pragma once

#include <stdexcept>
#include <string>

#include "ExitCode.h"

namespace zavctl {

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
