#include "http/ServerProbe.h"

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>

#include "http/Curl.h"

namespace zav {

namespace {

CURLcode useTrustedCertificates(CURL* /*handle*/, void* context, void* trusted) {
    try {
        auto* const store = static_cast<const TrustedCertificates*>(trusted)->store();
        SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), store);
        return CURLE_OK;
    } catch (const std::bad_alloc&) {
        return CURLE_OUT_OF_MEMORY;
    }
}

ServerProbe::Step failedStep(CURLcode result, CURL* handle, const std::string& address) {
    if (result == CURLE_OK) return ServerProbe::Step::none;
    if (result == CURLE_COULDNT_RESOLVE_HOST) return ServerProbe::Step::nameLookup;
    if (result == CURLE_COULDNT_CONNECT) return ServerProbe::Step::connection;
    curl_off_t lookup = 0;  // 0 until it has ended
    curl_easy_getinfo(handle, CURLINFO_NAMELOOKUP_TIME_T, &lookup);
    if (result == CURLE_OPERATION_TIMEDOUT && lookup == 0) return ServerProbe::Step::nameLookup;
    return address.empty() ? ServerProbe::Step::connection : ServerProbe::Step::tls;
}

std::optional<std::chrono::system_clock::time_point> firstExpiry(CURL* handle) {
    constexpr const char* label = "Expire date:";
    const curl_certinfo* chain = nullptr;
    curl_easy_getinfo(handle, CURLINFO_CERTINFO, &chain);
    std::optional<std::chrono::system_clock::time_point> first;
    for (int index = 0; chain != nullptr && index < chain->num_of_certs; ++index) {
        for (const curl_slist* line = chain->certinfo[index]; line != nullptr; line = line->next) {
            if (std::strncmp(line->data, label, std::strlen(label)) != 0) continue;
            const std::time_t seconds = curl_getdate(line->data + std::strlen(label), nullptr);
            const auto expiry = std::chrono::system_clock::from_time_t(seconds);
            if (seconds >= 0) first = first ? std::min(*first, expiry) : expiry;
        }
    }
    return first;
}

}  // namespace

ServerProbe probeServer(const UrlInfo& url, const Security& security, std::chrono::seconds timeout) {
    const Curl initialised;  // libcurl, until the handle is destroyed
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(), curl_easy_cleanup);
    if (handle == nullptr) throw std::bad_alloc();
    const auto trusted = security.trustedCertificates();
    std::array<char, CURL_ERROR_SIZE> text{};
    const auto set = [&handle](CURLoption option, auto value) {
        if (curl_easy_setopt(handle.get(), option, value) != CURLE_OK) throw std::bad_alloc();
    };
    set(CURLOPT_URL, url.origin().c_str());
    set(CURLOPT_CONNECT_ONLY, 1L);
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeout.count()));
    set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    set(CURLOPT_CAINFO, static_cast<char*>(nullptr));
    set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
    set(CURLOPT_SSL_CTX_FUNCTION, &useTrustedCertificates);
    set(CURLOPT_SSL_CTX_DATA, const_cast<TrustedCertificates*>(trusted.get()));
    set(CURLOPT_CERTINFO, 1L);
    set(CURLOPT_ERRORBUFFER, text.data());

    const CURLcode result = curl_easy_perform(handle.get());
    ServerProbe probe;
    const char* address = nullptr;
    curl_easy_getinfo(handle.get(), CURLINFO_PRIMARY_IP, &address);
    if (address != nullptr) probe.address = address;
    probe.failed = failedStep(result, handle.get(), probe.address);
    if (result != CURLE_OK) probe.reason = text.front() == '\0' ? curl_easy_strerror(result) : text.data();
    probe.expires = firstExpiry(handle.get());
    return probe;
}

}  // namespace zav
