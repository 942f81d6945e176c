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

class BundleFile;

class TrustedCertificates {
 public:
    /// `certificates` are X.509 in DER, in any order; duplicates are dropped.
    explicit TrustedCertificates(const std::vector<std::string>& certificates);

    /// The same, and those that `bundle` has now. They stay in the file and are read when a connection needs them: all
    /// of them would take a quarter of a megabyte. Throws std::runtime_error if the file cannot be read.
    TrustedCertificates(std::shared_ptr<const BundleFile> bundle, const std::vector<std::string>& certificates);
    ~TrustedCertificates();

    std::size_t count() const;
    /// How many entries of the bundle are not certificates.
    std::size_t damaged() const;
    bool sameAs(const TrustedCertificates& other) const;
    /// Whether both read the same bundle, unchanged between the moments at which it was opened for them.
    bool sameFileAs(const TrustedCertificates& other) const;

    /// The set as OpenSSL's store, owned by this object; take a reference to keep it longer. Created at the first call.
    /// It parses a certificate when a connection first needs it: all of them would take a megabyte. Throws
    /// std::bad_alloc.
    x509_store_st* store() const;

 private:
    struct Index;

    const std::shared_ptr<const Index> index_;  // the store keeps it, too
    mutable std::once_flag storeMade_;
    mutable x509_store_st* store_ = nullptr;  // written once, under storeMade_
};

}  // namespace zav
