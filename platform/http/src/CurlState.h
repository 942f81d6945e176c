// The members of Curl: the libcurl handle with its open connection, and what other threads may access.
#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <atomic>
#include <memory>

#include "common/ThreadSafety.h"
#include "http/Curl.h"
#include "security/DeviceIdentity.h"
#include "security/TrustedCertificates.h"

namespace zav {

/// Tells whether a TLS server closed its connection (close_notify) or the connection was cut. libcurl takes both for
/// the end of a body without a length, so that an attacker could truncate a file. Must outlive the connections it
/// watches.
class CloseNotify {
 public:
    /// Watches all connections of `context`. Throws std::bad_alloc.
    void watch(SSL_CTX* context);

    /// Whether the server sent close_notify on `connection`, which must be open or have been closed in this transfer.
    bool wasReceivedOn(const SSL* connection) const { return connection != nullptr && closed_ == connection; }

 private:
    static void onEvent(const SSL* connection, int where, int value);

    const SSL* closed_ = nullptr;  // the last one with a close_notify; may dangle, only compared
};

struct Curl::State {
    explicit State(CurlSettings clientSettings);
    ~State();

    /// The handle for a transfer that trusts `certificates` and presents `ownIdentity`, which may be null; null if out
    /// of memory. Its connection from the last transfer is reused, except after a change of either (it was made with
    /// the old ones, and so was its TLS session), and if data has arrived on it since (which would be read as the next
    /// response).
    CURL* handleFor(std::shared_ptr<const TrustedCertificates> certificates,
                    std::shared_ptr<const DeviceIdentity> ownIdentity);

    /// Resets the handle after a successful transfer. Keeps its connection, unless it is closed or has data after the
    /// response. `tls` belongs to that connection; null without TLS.
    void keepHandle(const SSL* tls);
    /// Destroys the handle. Required after a failed transfer, which must not affect the next one: for example, a handle
    /// whose last name lookup failed rejects options from then on.
    void dropHandle();

    /// Never null.
    std::shared_ptr<common::StopSignal> stopSignal() const;
    /// Whether transfers must end now.
    bool isOverdue() const { return stopSignal()->isOverdue(settings.steadyNow()); }

    /// Calls the progress callback, if any. Logs its exceptions and does not throw them.
    void report(long total, long now);

    // Constant after construction.
    const CurlSettings settings;

    // Only for the transferring thread.
    CloseNotify closeNotify;  // destroyed after the handle, whose connections report to it
    std::shared_ptr<const TrustedCertificates> trusted;
    std::shared_ptr<const DeviceIdentity> identity;
    CURL* handle = nullptr;
    curl_socket_t keptSocket = CURL_SOCKET_BAD;  // of the only open connection

    // Own synchronisation.
    std::atomic<long> httpCode{0};

    mutable common::Mutex stopMutex;
    std::shared_ptr<common::StopSignal> stop GUARDED_BY(stopMutex);

    // Held while the callback runs, so that its removal waits for it. Recursive, so that a callback may remove itself.
    common::RecursiveMutex callbackMutex;
    std::shared_ptr<ProgressCallback> callback GUARDED_BY(callbackMutex);
};

}  // namespace zav
