// Sets the options of a handle one after the other and keeps the first that is refused: a transfer without its checks
// must not run. The refused one is named in the log.
#pragma once

#include <curl/curl.h>

namespace zav {

class CurlOptions {
 public:
    explicit CurlOptions(CURL* handle) : handle_(handle) {}

    template <typename T>
    CurlOptions& set(CURLoption option, T value) {
        if (result_ == CURLE_OK) note(option, curl_easy_setopt(handle_, option, value));
        return *this;
    }

    CURLcode result() const { return result_; }

 private:
    void note(CURLoption option, CURLcode result);

    CURL* const handle_;
    CURLcode result_ = CURLE_OK;
};

}  // namespace zav
