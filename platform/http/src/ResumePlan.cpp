#include "ResumePlan.h"

#include <curl/curl.h>

#include <algorithm>

namespace zav {

namespace {

constexpr unsigned maxAttempts = 100;
constexpr unsigned maxIdleAttempts = 10;
constexpr std::uint64_t minProgress = 64 * 1024;
constexpr std::chrono::seconds maxPause{30};

}  // namespace

std::optional<std::chrono::seconds> ResumePlan::next(std::uint64_t size) {
    idle_ = size >= size_ + minProgress ? 0 : idle_ + 1;
    size_ = size;
    if (++attempts_ >= maxAttempts || idle_ >= maxIdleAttempts) return std::nullopt;
    if (idle_ <= 1) return std::chrono::seconds{0};
    return std::min(std::chrono::seconds{1U << (idle_ - 2)}, maxPause);
}

bool ResumePlan::isRetryable(int result) {
    switch (result) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_OPERATION_TIMEDOUT:
            return true;
        default:
            return false;
    }
}

}  // namespace zav
