#include "security/TrustedCertificates.h"

#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <new>
#include <utility>

namespace zav {

namespace {

std::vector<std::string> sortedUnique(std::vector<std::string> certificates) {
    std::sort(certificates.begin(), certificates.end());
    certificates.erase(std::unique(certificates.begin(), certificates.end()), certificates.end());
    return certificates;
}

}  // namespace

TrustedCertificates::TrustedCertificates(std::vector<std::string> certificates)
    : certificates_(sortedUnique(std::move(certificates))) {}

TrustedCertificates::~TrustedCertificates() { X509_STORE_free(store_); }

x509_store_st* TrustedCertificates::store() const {
    std::call_once(storeMade_, [this] {
        X509_STORE* store = X509_STORE_new();
        if (store == nullptr) throw std::bad_alloc();
        for (const std::string& der : certificates_) {
            const auto* at = reinterpret_cast<const unsigned char*>(der.data());
            X509* certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
            if (certificate != nullptr) X509_STORE_add_cert(store, certificate);
            X509_free(certificate);
        }
        ERR_clear_error();
        // A certificate in the bundle is trusted without its issuer: it may be a server's own or an intermediate one.
        X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
        store_ = store;
    });
    return store_;
}

}  // namespace zav
