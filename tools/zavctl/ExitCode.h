// Exit statuses of zavctl. Scripts rely on them: they never change.
#pragma once

namespace zavctl {

enum class ExitCode : int {
    done = 0,
    failed = 1,       // the operation failed: a pass that ended "fail", a value that is not allowed
    usage = 2,        // the command line is wrong
    unreachable = 3,  // the broker or the property service cannot be reached
    noSuchKey = 4,
    timedOut = 5,
};

}  // namespace zavctl
