#include "ChildEnd.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace common {

namespace {

void awaitEnd(pid_t child, int descriptor) {
    siginfo_t ignored{};
    while (waitid(P_PID, static_cast<id_t>(child), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    ::close(descriptor);
}

}  // namespace

ChildEnd::ChildEnd(pid_t child) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
    ended_.reset(ends[0]);
    // The program's signal handlers must not run on a thread that it knows nothing of.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int error = 0;
    try {
        waiting_ = std::thread(awaitEnd, child, ends[1]);
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        ::close(ends[1]);
        throw std::system_error(error, std::generic_category());
    }
}

ChildEnd::~ChildEnd() { waiting_.join(); }

}  // namespace common
