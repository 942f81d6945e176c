// Measures the start of a program: from its exec until it prints TEXT on standard error. For each line on standard
// input it starts the program once, prints the microseconds, and ends the program with SIGTERM.
//
//   bench_startup TEXT PROGRAM [ARGUMENT...]
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <iostream>
#include <stdexcept>
#include <string>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

/// Reads standard error of the program until it has printed the text.
void awaitText(int errors, const std::string& text) {
    std::string printed;
    std::array<char, 4096> buffer{};
    while (printed.find(text) == std::string::npos) {
        const ssize_t count = ::read(errors, buffer.data(), buffer.size());
        if (count <= 0) throw std::runtime_error("the program ended after: " + printed);
        printed.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

/// Repeats the signal, because the daemon loses one that comes before its wait.
void end(pid_t process, int errors) {
    pollfd closed{errors, POLLIN, 0};
    std::array<char, 4096> buffer{};
    for (ssize_t count = 1; count > 0;) {
        ::kill(process, SIGTERM);
        if (::poll(&closed, 1, 2) > 0) count = ::read(errors, buffer.data(), buffer.size());
    }
    ::waitpid(process, nullptr, 0);
}

double startOnce(const std::string& text, char** program) {
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    pid_t process = 0;
    const auto begin = Clock::now();
    const int error = ::posix_spawn(&process, program[0], &actions, nullptr, program, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    if (error != 0) throw std::runtime_error(std::string("cannot start ") + program[0]);
    awaitText(pipe[0], text);
    const double microseconds = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
    end(process, pipe[0]);
    ::close(pipe[0]);
    return microseconds;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string text = argv[1];
    for (std::string line; std::getline(std::cin, line);) std::cout << startOnce(text, argv + 2) << std::endl;
    return 0;
}
