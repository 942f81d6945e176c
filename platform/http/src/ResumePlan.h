// When a download that broke off is tried again, and when it is given up.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace zav {

class ResumePlan {
 public:
    /// To be asked after each attempt that broke off, with the file's size by then: how long to wait before the next,
    /// or nothing when enough is enough. An attempt that brought little counts as one that brought nothing: ten of
    /// those in a row are the end, a hundred attempts are the end in any case.
    std::optional<std::chrono::seconds> next(std::uint64_t size);

    /// Whether an attempt that ended with this libcurl result code broke off, rather than failed for good.
    static bool isBreak(int result);

 private:
    std::uint64_t size_ = 0;
    unsigned attempts_ = 0;
    unsigned idle_ = 0;
};

}  // namespace zav
