// A private folder in /tmp that is removed however the process ends, SIGKILL included: a child process waits for that.
// Construct it before any other thread is started.
#pragma once

#include <sys/types.h>

#include <string>

#include "common/Descriptor.h"

namespace common {

class TemporaryFolder {
 public:
    /// Makes "/tmp/NAME-XXXXXX" with mode 0700. A fixed place, because shell commands contain the path without quotes.
    explicit TemporaryFolder(const std::string& name);
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    /// Removes the folder with its content.
    ~TemporaryFolder();

    /// Empty if the folder could not be made.
    const std::string& path() const { return path_; }

 private:
    void remove() const;

    std::string path_;
    Descriptor writer_;  // its end tells the child that the process has ended
    pid_t child_ = -1;
};

}  // namespace common
