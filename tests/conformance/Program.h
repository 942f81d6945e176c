// A command in a process group of its own, run by a shell, with its output thrown away. It dies with this process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>

namespace conformance {

/// How long a program may take to come up, and to die.
constexpr std::chrono::seconds startLimit{10};

class Program {
 public:
    /// `stop` may be empty: then `start` must stay in the foreground, and is killed.
    Program(std::string start, std::string stop) : start_(std::move(start)), stop_(std::move(stop)) {}
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    void start();
    void kill();
    void signal(int number) const;

 private:
    const std::string start_;
    const std::string stop_;
    pid_t group_ = -1;
};

void pauseBetweenTries();

/// Polls until the condition is true. Returns false when the time is up.
template <typename Condition>
bool within(std::chrono::milliseconds limit, Condition condition) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        pauseBetweenTries();
    }
    return true;
}

}  // namespace conformance
