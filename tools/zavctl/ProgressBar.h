// One line on a terminal that shows how far a long command is. On anything else it prints nothing, so that logs and
// pipes stay clean. One thread uses it. The line stays below the terminal's width, which is asked each time it is
// drawn: the narrower, the less it says, down to the share alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include "Terminal.h"

namespace zavctl {

class ProgressBar {
 public:
    using Time = std::chrono::steady_clock::time_point;

    ProgressBar(std::ostream& stream, bool isTerminal, std::function<std::size_t()> columns = terminalColumns,
                std::function<Time()> now = std::chrono::steady_clock::now);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar() { clear(); }

    /// Shows `done` of `total` (0: unknown), the rate since the first call, and the time left. Bytes (the unit "bytes")
    /// are shown in kB, MB or GB. `name` says what is counted, and may be empty. Draws at most ten times a second, and
    /// always when everything is done.
    void show(std::uint64_t done, std::uint64_t total, const std::string& unit, const std::string& name = "");

    /// Removes the line from the terminal. Call it before anything else is printed there.
    void clear();

 private:
    std::ostream& stream_;
    const bool isTerminal_;
    const std::function<std::size_t()> columns_;
    const std::function<Time()> now_;
    std::optional<Time> begin_;
    std::uint64_t doneAtBegin_ = 0;
    Time drawnAt_;
    bool visible_ = false;
};

}  // namespace zavctl
