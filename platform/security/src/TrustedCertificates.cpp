#include "security/TrustedCertificates.h"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "BundleFile.h"
#include "Certificates.h"

namespace zav {

namespace {

struct Free {
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_NAME* name) const { X509_NAME_free(name); }
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};

// Goes into the next element, or past it. False if there is none of this tag.
bool advance(const unsigned char*& at, const unsigned char*& end, int wanted, bool enter) {
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const unsigned char* next = at;
    constexpr int failed = 0x80;
    if ((ASN1_get_object(&next, &length, &tag, &tagClass, end - at) & failed) != 0 || tag != wanted) return false;
    if (enter) end = next + length;
    at = enter ? next : next + length;
    return true;
}

// What OpenSSL would look for a certificate by: the hash of its subject. 0 if it has none.
unsigned long subjectHash(const std::string& der) {
    constexpr int version = 0;  // [0], which old certificates lack
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    const auto* end = at + der.size();
    if (!advance(at, end, V_ASN1_SEQUENCE, true) || !advance(at, end, V_ASN1_SEQUENCE, true)) return 0;
    static_cast<void>(advance(at, end, version, false));
    if (!advance(at, end, V_ASN1_INTEGER, false)) return 0;  // serial number
    for (int skipped = 0; skipped < 3; ++skipped) {          // signature algorithm, issuer, validity
        if (!advance(at, end, V_ASN1_SEQUENCE, false)) return 0;
    }
    const std::unique_ptr<X509_NAME, Free> subject(d2i_X509_NAME(nullptr, &at, static_cast<long>(end - at)));
    return subject == nullptr ? 0 : X509_NAME_hash_ex(subject.get(), nullptr, nullptr, nullptr);
}

struct Known {
    Digest digest{};
    unsigned long subjectHash = 0;
    Place place;      // in the bundle file
    std::string der;  // empty if it is in the file
};

// False if the certificate is not added.
bool keep(STACK_OF(X509_OBJECT) * objects, X509* certificate) {
    X509_OBJECT* const object = X509_OBJECT_new();
    const bool kept = object != nullptr && X509_OBJECT_set1_X509(object, certificate) == 1 &&
                      sk_X509_OBJECT_push(objects, object) > 0;
    if (!kept) X509_OBJECT_free(object);
    return kept;
}

}  // namespace

// What is known of each certificate, by digest, and where the others are.
struct TrustedCertificates::Index {
    std::shared_ptr<const BundleFile> bundle;  // null: all are in memory
    std::vector<Known> certificates;
    std::size_t damaged = 0;

    void add(const std::string& der, Place place, bool keepDer) {
        certificates.push_back({digestOf(der), subjectHash(der), place, keepDer ? der : ""});
    }

    void add(const std::vector<std::string>& others) {
        for (const std::string& der : others) {
            if (!der.empty()) add(der, {}, true);
        }
    }

    // Of duplicates, keeps the one in memory.
    void finish() {
        std::sort(certificates.begin(), certificates.end(), [](const Known& a, const Known& b) {
            return a.digest != b.digest ? a.digest < b.digest : a.der.size() > b.der.size();
        });
        const auto equal = [](const Known& a, const Known& b) { return a.digest == b.digest; };
        certificates.erase(std::unique(certificates.begin(), certificates.end(), equal), certificates.end());
        certificates.shrink_to_fit();
        ERR_clear_error();
    }

    void parseBySubject(const X509_NAME* subject, STACK_OF(X509_OBJECT) * objects) const {
        const unsigned long hash = X509_NAME_hash_ex(subject, nullptr, nullptr, nullptr);
        for (const Known& known : certificates) {
            if (known.subjectHash != hash) continue;
            const std::string read = known.der.empty() ? bundle->find(known.digest, known.place) : "";
            const std::string& der = known.der.empty() ? read : known.der;
            const auto* at = reinterpret_cast<const unsigned char*>(der.data());
            const std::unique_ptr<X509, Free> certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
            if (certificate == nullptr) continue;
            if (X509_NAME_cmp(X509_get_subject_name(certificate.get()), subject) != 0) continue;
            static_cast<void>(keep(objects, certificate.get()));
        }
    }

    static int addBySubject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* subject, X509_OBJECT* found);
    static void release(X509_LOOKUP* lookup);
    static X509_LOOKUP_METHOD* newMethod();
};

// Adds the certificates with this subject to the store and names one of them. Called by OpenSSL, under no lock, when
// the store has none. Other threads must see all of them or none, and may have added them since, so this holds the
// store's lock. Nothing may be thrown through OpenSSL: without memory there is no certificate.
int TrustedCertificates::Index::addBySubject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* subject,
                                             X509_OBJECT* found) {
    if (type != X509_LU_X509) return 0;
    X509_STORE* const store = X509_LOOKUP_get_store(lookup);
    if (X509_STORE_lock(store) != 1) return 0;
    STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(store);
    const X509_OBJECT* known = X509_OBJECT_retrieve_by_subject(objects, type, subject);
    if (known == nullptr) {
        const auto& index = *static_cast<const std::shared_ptr<const Index>*>(X509_LOOKUP_get_method_data(lookup));
        try {
            index->parseBySubject(subject, objects);
        } catch (...) {
        }
        known = X509_OBJECT_retrieve_by_subject(objects, type, subject);
    }
    X509* const certificate = known == nullptr ? nullptr : X509_OBJECT_get0_X509(known);
    const bool named = certificate != nullptr && X509_OBJECT_set1_X509(found, certificate) == 1;
    if (named) X509_free(certificate);  // OpenSSL takes no reference over from `found`: the store keeps the certificate
    X509_STORE_unlock(store);
    ERR_clear_error();
    return named ? 1 : 0;
}

void TrustedCertificates::Index::release(X509_LOOKUP* lookup) {
    delete static_cast<std::shared_ptr<const Index>*>(X509_LOOKUP_get_method_data(lookup));
}

// Lives as long as the process.
X509_LOOKUP_METHOD* TrustedCertificates::Index::newMethod() {
    X509_LOOKUP_METHOD* const method = X509_LOOKUP_meth_new("trusted certificates");
    if (method == nullptr) throw std::bad_alloc();
    X509_LOOKUP_meth_set_get_by_subject(method, addBySubject);
    X509_LOOKUP_meth_set_free(method, release);
    return method;
}

TrustedCertificates::TrustedCertificates(const std::vector<std::string>& certificates)
    : index_([&certificates] {
          auto index = std::make_shared<Index>();
          index->add(certificates);
          index->finish();
          return index;
      }()) {}

TrustedCertificates::TrustedCertificates(std::shared_ptr<const BundleFile> bundle,
                                         const std::vector<std::string>& certificates)
    : index_([&] {
          auto index = std::make_shared<Index>();
          const auto add = [&index](const std::string& der, Place place) { index->add(der, place, false); };
          index->damaged = visitCertificates(bundle->text(), Parse::no, add).damaged;
          index->bundle = std::move(bundle);
          index->add(certificates);
          index->finish();
          return index;
      }()) {}

TrustedCertificates::~TrustedCertificates() { X509_STORE_free(store_); }

std::size_t TrustedCertificates::count() const { return index_->certificates.size(); }

std::size_t TrustedCertificates::damaged() const { return index_->damaged; }

bool TrustedCertificates::sameAs(const TrustedCertificates& other) const {
    const auto& ours = index_->certificates;
    const auto& theirs = other.index_->certificates;
    return std::equal(ours.begin(), ours.end(), theirs.begin(), theirs.end(),
                      [](const Known& a, const Known& b) { return a.digest == b.digest; });
}

bool TrustedCertificates::sameFileAs(const TrustedCertificates& other) const {
    const auto& ours = index_->bundle;
    const auto& theirs = other.index_->bundle;
    return ours == theirs || (ours != nullptr && theirs != nullptr && ours->sameAs(*theirs));
}

x509_store_st* TrustedCertificates::store() const {
    std::call_once(storeMade_, [this] {
        static X509_LOOKUP_METHOD* const method = Index::newMethod();
        auto index = std::make_unique<std::shared_ptr<const Index>>(index_);
        std::unique_ptr<X509_STORE, Free> store(X509_STORE_new());
        X509_LOOKUP* const lookup = store == nullptr ? nullptr : X509_STORE_add_lookup(store.get(), method);
        if (lookup == nullptr) throw std::bad_alloc();
        X509_LOOKUP_set_method_data(lookup, index.release());
        // A certificate in the bundle is trusted without its issuer: it may be a server's own or an intermediate one.
        X509_STORE_set_flags(store.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
        store_ = store.release();
    });
    return store_;
}

}  // namespace zav
