// A standard error that blocks, as if the reader of the log had stopped reading.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "debug/Debug.h"

namespace fakes {

/// From `hold` to `release`, writing to standard error blocks.
class FullStandardError {
 public:
    FullStandardError() {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
        fcntl(ends_[1], F_SETFL, O_NONBLOCK);
        const std::string page(4096, 'x');
        while (write(ends_[1], page.data(), page.size()) > 0) {
        }
        fcntl(ends_[1], F_SETFL, 0);
    }
    ~FullStandardError() {
        release();
        close(ends_[0]);
    }
    FullStandardError(const FullStandardError&) = delete;
    FullStandardError& operator=(const FullStandardError&) = delete;

    void hold() {
        before_ = dup(STDERR_FILENO);
        dup2(ends_[1], STDERR_FILENO);
    }
    /// Restores standard error. Lines logged meanwhile are lost, which the next log line reports.
    void release() {
        if (before_ < 0) return;
        dup2(before_, STDERR_FILENO);
        close(before_);
        before_ = -1;
        char page[4096];
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        while (read(ends_[0], page, sizeof page) > 0) {
        }
        close(ends_[1]);
        dbg::Debug::error() << "The log is read again" << std::endl;  // preceded by the number of lost lines
    }

 private:
    int ends_[2] = {-1, -1};
    int before_ = -1;
};

}  // namespace fakes
