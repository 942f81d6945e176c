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
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "OpenDescriptors.h"
#include "common/Ascii.h"
#include "common/Descriptor.h"
#include "common/Quote.h"
#include "common/Signal.h"

namespace os {

namespace {

using common::Descriptor;
using common::reasonOf;

constexpr std::size_t keptErrorText = 512;
constexpr std::chrono::milliseconds stopCheckInterval{250};
// Exit statuses of a shell for a program that it does not find, or may not execute.
constexpr int cannotExecute = 126;
constexpr int commandNotFound = 127;

[[noreturn]] void fail(const std::string& command, const std::string& reason) {
    throw ExecuteException("Command " + quote(command) + " " + reason);
}

[[noreturn]] void failToStart(const std::string& command, const std::string& reason) {
    throw CommandNotStartedException("Command " + quote(command) + " " + reason);
}

// Should the shell have a command of its own by this name, the program does the same.
bool isInPath(const std::string& name) {
    const char* const path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): nothing sets variables
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (access((folder + "/" + name).c_str(), X_OK) == 0) return true;
    }
    return false;
}

// Whether the command is a program and arguments that have no meaning to the shell.
bool isOneProgram(const std::string& command) {
    constexpr std::string_view harmless = "_-./:,+";
    const auto isPlain = [&](char c) {
        return common::isAsciiLetterOrDigit(c) || harmless.find(c) != std::string_view::npos;
    };
    const auto nameEnd = std::find_if_not(command.begin(), command.end(), isPlain);
    const auto isArgument = [&](char c) { return isPlain(c) || c == ' ' || c == '='; };
    if (nameEnd == command.begin() || (nameEnd != command.end() && *nameEnd != ' ')) return false;
    if (!std::all_of(nameEnd, command.end(), isArgument)) return false;
    const std::string name(command.begin(), nameEnd);
    return name.find('/') != std::string::npos || isInPath(name);
}

// What the shell gets: with `exec` a program takes its place, where it would only wait for the end of another process.
std::string shellCommand(const std::string& command) { return isOneProgram(command) ? "exec " + command : command; }

// Returns false, with errno set, if no descriptor is left.
bool openPipe(Descriptor& reading, Descriptor& writing) {
    std::array<int, 2> ends{-1, -1};
    const bool opened = pipe2(ends.data(), O_CLOEXEC) == 0;
    reading.reset(ends[0]);
    writing.reset(ends[1]);
    return opened;
}

// A descriptor of a child that is not reaped yet, closed in children; negative if there is none. Not every C library
// has the function.
int openProcess(pid_t process) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, process, 0));
#else
    static_cast<void>(process);
    return -1;
#endif
}

// The child has its own process group, default signal handling and no open files but the standard ones.
class SpawnAttributes {
 public:
    explicit SpawnAttributes(int errorPipe) {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
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
        common::closeInChild(actions_);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    const posix_spawnattr_t* attributes() const { return &attributes_; }
    const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
};

// Reads the child's standard error and keeps its beginning. The rest is discarded, so that the child never blocks.
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

// The running shell. The destructor kills its process group unless it has been reaped.
class Shell {
 public:
    /// Throws CommandNotStartedException.
    Shell(const std::string& command, int errorPipe) {
        const SpawnAttributes spawn(errorPipe);
        std::string shell = "sh";
        std::string option = "-c";
        std::string text = shellCommand(command);
        const std::array<char*, 4> arguments{shell.data(), option.data(), text.data(), nullptr};
        const int error =
            posix_spawn(&process_, "/bin/sh", spawn.actions(), spawn.attributes(), arguments.data(), environ);
        if (error != 0) failToStart(command, "cannot be started: " + reasonOf(error));
    }
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;
    ~Shell() {
        if (reaped_) return;
        if (kill(-process_, SIGKILL) != 0) kill(process_, SIGKILL);  // it may have no group of its own yet
        reap();
    }

    /// Lets poll wait for the end of the shell, by a descriptor of the process. Kernels before 5.3 have none: there a
    /// thread waits for the end and then closes a pipe. No signal handler, no polling, and processes that the shell
    /// leaves behind do not delay it. Throws std::system_error if no descriptor or no thread is left.
    void watch() {
        ended_.reset(openProcess(process_));
        if (ended_.get() >= 0) return;
        if (!openPipe(ended_, running_)) throw std::system_error(errno, std::generic_category());
        const common::signal::AllBlocked blocked;
        waiting_ = std::thread([this] {
            siginfo_t ignored{};
            // The shell stays a zombie until it is reaped, so its number cannot be reused meanwhile.
            while (waitid(P_PID, static_cast<id_t>(process_), &ignored, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
            }
            running_.close();
        });
    }
    /// Reports POLLIN or POLLHUP once the shell has ended.
    int endDescriptor() const { return ended_.get(); }

    /// Waits for the end. Returns the exit status of waitpid, or nothing, with errno set, if it is lost.
    std::optional<int> reap() {
        if (waiting_.joinable()) waiting_.join();  // it may still use the process number
        reaped_ = true;
        int status = 0;
        while (waitpid(process_, &status, 0) < 0) {
            if (errno != EINTR) return std::nullopt;
        }
        return status;
    }

 private:
    pid_t process_ = -1;
    Descriptor ended_;
    Descriptor running_;
    std::thread waiting_;
    bool reaped_ = false;
};

std::string errorSuffix(std::string errorText) {
    while (!errorText.empty() && errorText.back() == '\n') errorText.pop_back();
    return errorText.empty() ? "" : ": " + quote(errorText);
}

// Returns once the shell has ended, with the beginning of what it wrote to standard error until then.
std::string awaitEnd(const std::string& command, const Shell& shell, Descriptor& errors,
                     std::chrono::milliseconds timeout, const common::StopSignal* stop) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    std::string errorText;
    for (;;) {
        if (stop != nullptr && stop->isOverdue()) {
            fail(command, "was ended: the process is shutting down");
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            fail(command, "took longer than " + std::to_string(timeout.count()) + " ms and was ended");
        }
        std::array<pollfd, 2> waited{pollfd{shell.endDescriptor(), POLLIN, 0}, pollfd{errors.get(), POLLIN, 0}};
        const auto longest = stop == nullptr ? std::chrono::milliseconds(60000) : stopCheckInterval;
        const int ready = poll(waited.data(), waited.size(), static_cast<int>(std::min(left, longest).count()));
        if (ready < 0 && errno != EINTR) fail(command, "cannot be waited for: " + reasonOf(errno));
        if (ready <= 0) continue;
        if (waited[1].revents != 0) drain(errors, errorText);
        if (waited[0].revents != 0) return errorText;
    }
}

}  // namespace

void execute(const std::string& command, std::chrono::milliseconds timeout, const common::StopSignal* stop) {
    Descriptor errors;
    Descriptor shellErrors;
    if (!openPipe(errors, shellErrors)) failToStart(command, "cannot be started: " + reasonOf(errno));
    fcntl(errors.get(), F_SETFL, O_NONBLOCK);

    Shell shell(command, shellErrors.get());
    shellErrors.close();
    try {
        shell.watch();
    } catch (const std::system_error& failure) {
        fail(command, "cannot be waited for: " + reasonOf(failure.code().value()));
    }
    std::string errorText = awaitEnd(command, shell, errors, timeout, stop);
    const std::optional<int> status = shell.reap();
    // A program that ignores SIGCHLD loses the status of its children.
    if (!status) fail(command, "cannot be waited for: " + reasonOf(errno));
    if (errors.get() >= 0) drain(errors, errorText);
    if (WIFSIGNALED(*status)) {
        fail(command, "was ended by signal " + std::to_string(WTERMSIG(*status)) + errorSuffix(errorText));
    }
    if (const int code = WEXITSTATUS(*status); code != 0) {
        const std::string reason = "ended with status " + std::to_string(code) + errorSuffix(errorText);
        if (code == cannotExecute || code == commandNotFound) failToStart(command, reason);
        fail(command, reason);
    }
}

}  // namespace os
