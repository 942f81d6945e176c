// What the exit status of zavctl means. Scripts rely on it: it never changes.
#pragma once

namespace zavctl {

enum class ExitCode : int {
    done = 0,
    failed = 1,       // the operation failed: a pass that ended "fail", a value that is not allowed
    usage = 2,        // the command line is wrong
    unreachable = 3,  // the bus or the property service is away
    noSuchKey = 4,
    timedOut = 5,
};

}  // namespace zavctl
