// bench_start PORT: a line "service PROGRAM ARGUMENT..." on standard input starts the program, waits until its presence
// on the bus is "online", prints the milliseconds that this took, and ends it. A line "program PROGRAM ARGUMENT..."
// waits for the program's end instead.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <vector>

#include "floors/BareClient.h"

namespace {

pid_t start(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = -1;
    const int error = posix_spawn(&process, arguments[0], &files, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw std::runtime_error("cannot start " + words[0]);
    return process;
}

void awaitOnline(floors::BareClient& client, const std::string& presence, pid_t process) {
    while (presence != "online") {
        pollfd waited{client.socket(), POLLIN, 0};
        if (poll(&waited, 1, 1000) > 0) {
            client.read();
        } else if (waitpid(process, nullptr, WNOHANG) == process) {
            throw std::runtime_error("the service ended");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        std::string presence;
        floors::BareClient client(std::atoi(argv[1]), "bench-start",
                                  [&presence](const mosquitto_message& message, const mosquitto_property*) {
                                      presence.assign(static_cast<const char*>(message.payload),
                                                      static_cast<std::size_t>(message.payloadlen));
                                  });
        client.subscribe("prop-service/status");
        for (std::string line; std::getline(std::cin, line);) {
            std::istringstream stream(line);
            std::string kind;
            stream >> kind;
            std::vector<std::string> words;
            for (std::string word; stream >> word;) words.push_back(word);
            const auto begin = std::chrono::steady_clock::now();
            const pid_t process = start(words);
            int status = 0;
            if (kind == "service") {
                awaitOnline(client, presence, process);
            } else {
                waitpid(process, &status, 0);
            }
            const auto end = std::chrono::steady_clock::now();
            if (kind == "service") {
                kill(process, SIGTERM);
                while (presence == "online") client.step();
                waitpid(process, &status, 0);
            }
            if (status != 0) throw std::runtime_error(words[0] + " failed");
            std::printf("%.3f\n", std::chrono::duration<double, std::milli>(end - begin).count());
            std::fflush(stdout);
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_start: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
