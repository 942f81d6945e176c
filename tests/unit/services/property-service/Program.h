// Runs prop-service as a process and records the messages of a subscription.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/IIPCCallback.h"

// One run of prop-service; the destructor kills it if it still runs.
class Program {
 public:
    explicit Program(std::vector<std::string> arguments, const std::string& errors = "/dev/null") {
        arguments.insert(arguments.begin(), PROP_SERVICE);
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
            posix_spawn_file_actions_addopen(&actions, stream, errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        }
        if (::posix_spawn(&pid_, PROP_SERVICE, &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        if (pid_ > 0) end(SIGKILL);
    }

    /// Stops the process; returns once it has stopped.
    void freeze() const {
        ::kill(pid_, SIGSTOP);
        int status = 0;
        ::waitpid(pid_, &status, WUNTRACED);
    }
    void thaw() const { ::kill(pid_, SIGCONT); }
    void signal(int number) const { ::kill(pid_, number); }

    /// The exit status, or minus the signal that ended it.
    int end(int signal) {
        ::kill(pid_, signal);
        return wait();
    }
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

 private:
    pid_t pid_ = -1;
};

class Recorder final : public ipc::IIPCCallback {
 public:
    void connectionLost(const std::string&) override {}
    void messageArrived(const std::string& topic, const std::string& content) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        messages_.push_back(topic + " " + content);
        changed_.notify_all();
    }
    void deliveryComplete(const std::string&) override {}

    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return messages_.size() >= count; });
        return messages_;
    }

 private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> messages_;  // guarded by mutex_
};
