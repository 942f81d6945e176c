// What a Curl holds: the handle with its open connections, and what is told to others about the transfer.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "CloseNotify.h"
#include "http/Curl.h"
#include "security/TrustedCertificates.h"

namespace zav {

struct Curl::State {
    explicit State(CurlSettings limitsAndClocks);
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// The handle for a transfer that trusts `certificates`, null when there is no memory. Its open connections are
    /// kept from the last transfer unless that one trusted others: a connection, and a session that could be resumed,
    /// are only as good as the certificates they were verified with. Nor is a connection kept on which something has
    /// arrived since: it would be taken for the next answer.
    CURL* handleFor(std::shared_ptr<const TrustedCertificates> certificates);

    /// Keeps the handle's connection for the next transfer, unless it was closed or holds more than the answer, and
    /// resets everything else. `tls` is that connection's, null without TLS.
    void keepHandle(const SSL* tls);
    /// Destroys the handle and all it knows. Required after a failed transfer: a handle whose last name lookup failed
    /// refuses options for good, and whatever else an error leaves in it must not decide the next transfer.
    void dropHandle();

    /// Never null.
    std::shared_ptr<common::StopSignal> stopSignal() const;
    /// Whether transfers have to end now.
    bool isOverdue() const { return stopSignal()->isOverdue(settings.steadyNow()); }

    /// Calls the progress callback, if there is one. What it throws is logged and goes no further.
    void report(long total, long now, long uploadTotal, long uploadNow);

    // Constant after construction.
    const CurlSettings settings;

    // The transferring thread's alone.
    CloseNotify closeNotify;  // destroyed after the handle, whose connections report to it
    std::shared_ptr<const TrustedCertificates> trusted;
    CURL* handle = nullptr;
    curl_socket_t kept = CURL_SOCKET_BAD;  // of the handle's only open connection

    // Own synchronisation.
    std::atomic<long> httpCode{0};

    mutable std::mutex stopMutex;
    std::shared_ptr<common::StopSignal> stop;  // guarded by stopMutex

    // Held while the callback runs, so that taking it back waits for its end; recursive, so that a callback may take
    // itself back.
    std::recursive_mutex callbackMutex;
    std::shared_ptr<ProgressCallback> callback;  // guarded by callbackMutex
};

}  // namespace zav
