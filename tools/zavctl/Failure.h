// A command that did not succeed: how zavctl ends, and what it says.
#pragma once

#include <stdexcept>
#include <string>

#include "ExitCode.h"

namespace zavctl {

class Failure : public std::runtime_error {
 public:
    /// `word` is the short name of the error for programs ("not-found"), `reason` the sentence for people.
    Failure(ExitCode code, std::string word, const std::string& reason)
        : runtime_error(reason), code_(code), word_(std::move(word)) {}

    ExitCode code() const { return code_; }
    const std::string& word() const { return word_; }

 private:
    const ExitCode code_;
    const std::string word_;
};

/// The exception in hand (of the property client, the bus client, or any other) as a Failure. To be called from a
/// catch clause only.
Failure currentFailure();

}  // namespace zavctl
