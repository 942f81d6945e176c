#include "CurlOptions.h"

#include "debug/Debug.h"

namespace zav {

void CurlOptions::record(CURLoption option, CURLcode result) {
    result_ = result;
    if (result == CURLE_OK) return;
    const curl_easyoption* const known = curl_easy_option_by_id(option);
    dbg::Debug::error() << "HTTP option " << (known == nullptr ? "?" : known->name)
                        << " cannot be set: " << curl_easy_strerror(result) << std::endl;
}

}  // namespace zav
