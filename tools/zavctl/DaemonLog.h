// The daemon's log from a moment on: the journal of zavd.service, or a file that may be rotated or truncated meanwhile.
// The constructor notes where the log ends; it takes up to 5 s if the journal hangs, and does not throw. One thread
// uses it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

#include "common/Descriptor.h"

namespace zavctl {

class DaemonLog {
 public:
    using Line = std::function<void(std::string_view)>;

    /// `path` is a file; empty: the journal.
    explicit DaemonLog(std::string path);

    /// Whether lines may come later than what the daemon did after it logged them.
    bool mayLag() const { return path_.empty(); }

    /// Calls `line` for each line logged since the construction, without its line break; of a line of more than 64 KiB
    /// with its beginning. Throws std::runtime_error, with the reason and what to do, if the log cannot be read.
    void read(const Line& line) const;

 private:
    void readJournal(const Line& line) const;
    void readFile(const Line& line) const;

    const std::string path_;
    common::Descriptor file_;  // at the construction; it may have another name by now
    off_t end_ = 0;            // of that file at the construction
    std::string cursor_;       // of the journal's last entry at the construction; empty if there was none
};

}  // namespace zavctl
