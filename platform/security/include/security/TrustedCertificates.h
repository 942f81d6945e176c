// An immutable set of trusted certificates. Readers keep the set they hold while a reload creates a new one. Any
// thread.
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
    /// `certificates` are X.509 in DER, in any order; duplicates are dropped.
    explicit TrustedCertificates(std::vector<std::string> certificates);
    ~TrustedCertificates();

    std::size_t count() const { return certificates_->size(); }
    bool sameAs(const TrustedCertificates& other) const { return *certificates_ == *other.certificates_; }

    /// The set as OpenSSL's store, owned by this object; take a reference to keep it longer. Created at the first call.
    /// It parses a certificate when a connection first needs it: all of them would take a megabyte. Throws
    /// std::bad_alloc.
    x509_store_st* store() const;

 private:
    const std::shared_ptr<const std::vector<std::string>> certificates_;  // sorted; the store keeps them, too
    mutable std::once_flag storeMade_;
    mutable x509_store_st* store_ = nullptr;  // written once, under storeMade_
};

}  // namespace zav
