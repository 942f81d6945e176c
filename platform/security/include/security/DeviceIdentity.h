// The certificate and private key by which the phone identifies itself to its provisioning server (mutual TLS).
// Immutable; any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;  // OpenSSL's EVP_PKEY
struct ssl_ctx_st;   // OpenSSL's SSL_CTX
struct x509_st;      // OpenSSL's X509

namespace zav {

class DeviceIdentity {
 public:
    /// `pem`: the phone's certificate, then any intermediate ones, and the private key, which may stand anywhere.
    /// Throws std::runtime_error with what is wrong, as the rest of a sentence that begins with the name of the file: a
    /// part is missing, damaged or encrypted, the key belongs to another certificate, or the certificate is not valid
    /// today.
    explicit DeviceIdentity(const std::string& pem);
    DeviceIdentity(const DeviceIdentity&) = delete;
    DeviceIdentity& operator=(const DeviceIdentity&) = delete;

    bool sameAs(const DeviceIdentity& other) const;

    /// Lets connections of this context identify the phone. Returns false if memory runs out.
    bool useIn(ssl_ctx_st* context) const;

 private:
    std::shared_ptr<x509_st> certificate_;
    std::vector<std::shared_ptr<x509_st>> intermediates_;
    std::shared_ptr<evp_pkey_st> key_;
};

}  // namespace zav
