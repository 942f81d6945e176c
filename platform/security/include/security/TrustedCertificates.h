// One state of what the phone trusts, as certificates. A value that never changes: readers keep the one they were
// given while a reload makes the next. Safe from any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct x509_store_st;  // OpenSSL's X509_STORE

namespace zav {

class TrustedCertificates {
 public:
    /// `certificates` are X.509 in DER, in any order; one that stands there twice counts once.
    explicit TrustedCertificates(std::vector<std::string> certificates);
    ~TrustedCertificates();
    TrustedCertificates(const TrustedCertificates&) = delete;
    TrustedCertificates& operator=(const TrustedCertificates&) = delete;

    std::size_t count() const { return certificates_.size(); }
    bool sameAs(const TrustedCertificates& other) const { return certificates_ == other.certificates_; }

    /// The certificates as OpenSSL verifies with them, made at the first call (some milliseconds) and shared from then
    /// on: a new connection takes a reference and parses nothing. Lives as long as this object and the references.
    x509_store_st* store() const;

 private:
    const std::vector<std::string> certificates_;  // sorted
    mutable std::once_flag storeMade_;
    mutable x509_store_st* store_ = nullptr;  // written once, under storeMade_
};

}  // namespace zav
