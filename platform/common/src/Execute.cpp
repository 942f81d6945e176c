#include "common/Execute.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "common/Descriptor.h"
#include "common/Quote.h"

namespace os {

namespace {

using common::Descriptor;

constexpr std::size_t keptErrorText = 512;
constexpr std::chrono::milliseconds stopCheckInterval{250};
// What a shell answers for a program that it does not find, or may not execute.
constexpr int cannotExecute = 126;
constexpr int commandNotFound = 127;

[[noreturn]] void fail(const std::string& command, const std::string& reason) {
    throw ExecuteException("Command " + quote(command) + " " + reason);
}

[[noreturn]] void failToStart(const std::string& command, const std::string& reason) {
    throw CommandNotStartedException("Command " + quote(command) + " " + reason);
}

std::string describe(int error) { return std::generic_category().message(error); }

class SpawnAttributes {
 public:
    SpawnAttributes() {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    // A child that knows nothing of us: own group, default signals, three descriptors.
    void prepare(int errorPipe) {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, errorPipe, STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }

    const posix_spawnattr_t* attributes() const { return &attributes_; }
    const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
};

// What the child says on standard error; the beginning is kept, the rest is read away so that it never blocks.
void drain(Descriptor& pipe, std::string& kept) {
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count = ::read(pipe.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) return;
        if (count <= 0) {
            pipe.close();
            return;
        }
        const auto wanted = std::min(static_cast<std::size_t>(count), keptErrorText - kept.size());
        kept.append(buffer.data(), wanted);
    }
}

int reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string spoken(std::string errorText) {
    while (!errorText.empty() && errorText.back() == '\n') errorText.pop_back();
    return errorText.empty() ? "" : ": " + quote(errorText);
}

}  // namespace

void execute(const std::string& command, std::chrono::milliseconds timeout, const common::StopSignal* stop) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;

    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) failToStart(command, "cannot be started: " + describe(errno));
    Descriptor errors(ends[0]);
    Descriptor childErrors(ends[1]);
    fcntl(errors.get(), F_SETFL, O_NONBLOCK);

    SpawnAttributes spawn;
    spawn.prepare(childErrors.get());
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    const std::array<char*, 4> arguments{shell.data(), option.data(), text.data(), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", spawn.actions(), spawn.attributes(), arguments.data(), environ);
    if (error != 0) failToStart(command, "cannot be started: " + describe(error));
    childErrors.close();
    const Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    if (ended.get() < 0) {
        const int reason = errno;
        kill(-child, SIGKILL);
        reap(child);
        fail(command, "cannot be waited for: " + describe(reason));
    }

    std::string errorText;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const bool shuttingDown = stop != nullptr && stop->isOverdue();
        if (left.count() <= 0 || shuttingDown) {
            kill(-child, SIGKILL);
            reap(child);
            fail(command, shuttingDown ? "was ended: the process is shutting down"
                                       : "took longer than " + std::to_string(timeout.count()) + " ms and was ended");
        }
        std::array<pollfd, 2> waited{pollfd{ended.get(), POLLIN, 0}, pollfd{errors.get(), POLLIN, 0}};
        const auto longest = stop == nullptr ? std::chrono::milliseconds(60000) : stopCheckInterval;
        const int ready = poll(waited.data(), waited.size(), static_cast<int>(std::min(left, longest).count()));
        if (ready < 0 && errno != EINTR) {
            const int reason = errno;
            kill(-child, SIGKILL);
            reap(child);
            fail(command, "cannot be waited for: " + describe(reason));
        }
        if (ready <= 0) continue;
        if (waited[1].revents != 0) drain(errors, errorText);
        if (waited[0].revents != 0) break;
    }
    const int status = reap(child);
    if (errors.get() >= 0) drain(errors, errorText);
    if (WIFSIGNALED(status))
        fail(command, "was ended by signal " + std::to_string(WTERMSIG(status)) + spoken(errorText));
    if (const int code = WEXITSTATUS(status); code != 0) {
        const std::string reason = "ended with status " + std::to_string(code) + spoken(errorText);
        if (code == cannotExecute || code == commandNotFound) failToStart(command, reason);
        fail(command, reason);
    }
}

}  // namespace os
