// Sets options of a handle. After the first one that fails, which is logged, it sets no others: a transfer must not run
// without all its options.
#pragma once

#include <curl/curl.h>

namespace zav {

class CurlOptions {
 public:
    explicit CurlOptions(CURL* handle) : handle_(handle) {}

    template <typename T>
    CurlOptions& set(CURLoption option, T value) {
        if (result_ == CURLE_OK) record(option, curl_easy_setopt(handle_, option, value));
        return *this;
    }

    CURLcode result() const { return result_; }

 private:
    void record(CURLoption option, CURLcode result);

    CURL* const handle_;
    CURLcode result_ = CURLE_OK;
};

}  // namespace zav
