// Shell commands with a time-out.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "common/StopSignal.h"

namespace os {

/// A command that failed. The text names the command, the reason, and the beginning of its standard error.
class ExecuteException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

class CommandNotStartedException : public ExecuteException {
 public:
    using ExecuteException::ExecuteException;
};

/// Runs `command` with "/bin/sh -c" and waits for its end, `timeout` at most. A program takes the place of its shell if
/// the command is nothing else. The child has a process group of its own,
/// standard input and output on /dev/null, no other open files, default signal handling. After the time-out the whole
/// group is killed and reaped. Blocks the calling thread; any thread may call it.
/// A command that still runs when `stop` is overdue is killed as well.
/// Throws ExecuteException when the command cannot be started, exits other than 0, dies of a signal or takes too long;
/// of these CommandNotStartedException if no process can be created or the shell does not find the program.
void execute(const std::string& command, std::chrono::milliseconds timeout, const common::StopSignal* stop = nullptr);

}  // namespace os
