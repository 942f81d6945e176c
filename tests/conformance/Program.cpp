#include "Program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace conformance {

namespace {

/// A shell in a process group of its own that dies with this process.
pid_t spawn(const std::string& command) {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("Cannot start another process");
    if (child > 0) {
        setpgid(child, child);  // both sides set it: either may be first
        return child;
    }
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
}

}  // namespace

void pauseBetweenTries() { poll(nullptr, 0, 2); }

Program::~Program() {
    try {
        kill();
    } catch (const std::exception&) {  // a check that starts the next one reports it
    }
}

void Program::start() {
    if (group_ > 0) return;
    group_ = spawn(start_);
    if (stop_.empty()) return;
    int status = 0;
    waitpid(group_, &status, 0);
    if (status != 0) throw std::runtime_error("The command failed: " + start_);
}

void Program::kill() {
    if (group_ <= 0) return;
    const pid_t group = std::exchange(group_, -1);
    if (!stop_.empty()) {
        int status = 0;
        waitpid(spawn(stop_), &status, 0);
        if (status != 0) throw std::runtime_error("The command failed: " + stop_);
        return;
    }
    ::kill(-group, SIGKILL);
    waitpid(group, nullptr, 0);
    // What the shell has started is not our child, so it cannot be waited for.
    if (!within(startLimit, [group] { return ::kill(-group, 0) != 0 && errno == ESRCH; })) {
        throw std::runtime_error("It survives SIGKILL: " + start_);
    }
}

void Program::signal(int number) const {
    if (group_ > 0) ::kill(-group_, number);
    // SIGSTOP takes effect a moment later; a process that is stopped is reported.
    if (number == SIGSTOP) waitpid(group_, nullptr, WUNTRACED);
}

}  // namespace conformance
