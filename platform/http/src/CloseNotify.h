// Whether a TLS server ended its connection itself (close_notify), or the connection was cut. libcurl takes both for
// the end of a body without a length, and somebody on the line could shorten a file that way.
//
// Lives as long as the connections it watches, on the thread that transfers.
#pragma once

#include <openssl/ssl.h>

namespace zav {

class CloseNotify {
 public:
    CloseNotify() = default;
    CloseNotify(const CloseNotify&) = delete;
    CloseNotify& operator=(const CloseNotify&) = delete;

    /// Watches all connections that are made from `context`. Throws std::bad_alloc.
    void watch(SSL_CTX* context);

    /// Whether the server ended `connection`, which must be alive or have ended in the transfer that asks.
    bool wasReceivedOn(const SSL* connection) const { return connection != nullptr && closed_ == connection; }

 private:
    static void onEvent(const SSL* connection, int where, int value);

    const SSL* closed_ = nullptr;  // the latest that the server ended; compared only
};

}  // namespace zav
