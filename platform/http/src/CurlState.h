// What a Curl holds: the handle with its open connections, and what is told to others about the transfer.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "http/Curl.h"
#include "security/TrustedCertificates.h"

namespace zav {

struct Curl::State {
    State();
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// The handle for a transfer that trusts `certificates`, null when there is no memory. Its open connections are
    /// kept from the last transfer unless that one trusted others: a connection, and a session that could be resumed,
    /// are only as good as the certificates they were verified with.
    CURL* handleFor(std::shared_ptr<const TrustedCertificates> certificates);

    /// Calls the progress callback, if there is one. What it throws is logged and goes no further.
    void report(long total, long now, long uploadTotal, long uploadNow);

    // The transferring thread's alone.
    std::shared_ptr<const TrustedCertificates> trusted;
    CURL* handle = nullptr;

    // Own synchronisation.
    std::atomic<long> httpCode{0};

    // Held while the callback runs, so that taking it back waits for its end; recursive, so that a callback may take
    // itself back.
    std::recursive_mutex callbackMutex;
    std::shared_ptr<ProgressCallback> callback;  // guarded by callbackMutex
};

}  // namespace zav
