// Owners of what libcurl allocates.
#pragma once

#include <curl/curl.h>

#include <memory>

namespace zav {

struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

using CurlText = std::unique_ptr<char, CurlFree>;
using CurlUrl = std::unique_ptr<CURLU, CurlFree>;
using CurlList = std::unique_ptr<curl_slist, CurlFree>;

}  // namespace zav
