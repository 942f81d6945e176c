// A private folder below /tmp.
#pragma once

#include <sys/types.h>

#include <string>

#include "common/Descriptor.h"

namespace zavctl {

/// Removed with all that is in it however this process ends: a child process waits for that. Construct it before any
/// thread is started.
class TemporaryFolder {
 public:
    /// Its name is that of the command and something random.
    explicit TemporaryFolder(const std::string& command);
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    /// Empty if there is none.
    const std::string& path() const { return path_; }

 private:
    void remove() const;

    std::string path_;
    common::Descriptor writer_;
    pid_t child_ = -1;
};

}  // namespace zavctl
