// Tells whether a TLS server closed its connection (close_notify) or the connection was cut. libcurl takes both for the
// end of a body without a length, so that an attacker could truncate a file.
//
// Must outlive the connections it watches. Only for the transferring thread.
#pragma once

#include <openssl/ssl.h>

namespace zav {

class CloseNotify {
 public:
    CloseNotify() = default;
    CloseNotify(const CloseNotify&) = delete;
    CloseNotify& operator=(const CloseNotify&) = delete;

    /// Watches all connections of `context`. Throws std::bad_alloc.
    void watch(SSL_CTX* context);

    /// Whether the server sent close_notify on `connection`, which must be open or have been closed in this transfer.
    bool wasReceivedOn(const SSL* connection) const { return connection != nullptr && closed_ == connection; }

 private:
    static void onEvent(const SSL* connection, int where, int value);

    const SSL* closed_ = nullptr;  // the last one with a close_notify; may dangle, only compared
};

}  // namespace zav
