// Decides when an interrupted download is retried, and when it fails. Not thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace zav {

class ResumePlan {
 public:
    /// Call after each interrupted attempt with the current size of the file. Returns the pause before the next
    /// attempt, or nothing if there must not be one: after ten attempts in a row without progress (less than 64 KiB
    /// each), and after a hundred attempts in all.
    std::optional<std::chrono::seconds> next(std::uint64_t size);

    /// Whether an attempt that ended with this libcurl result code was interrupted, so that another one may succeed.
    static bool isRetryable(int result);

 private:
    std::uint64_t size_ = 0;
    unsigned attempts_ = 0;
    unsigned idle_ = 0;  // attempts in a row without progress
};

}  // namespace zav
