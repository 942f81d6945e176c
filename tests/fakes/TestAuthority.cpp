#include "fakes/TestAuthority.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <stdexcept>

namespace fakes {

namespace {

struct Free {
    void operator()(BIO* p) const { BIO_free(p); }
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

void require(bool worked, const char* what) {
    if (!worked) throw std::runtime_error(std::string("TestAuthority: ") + what);
}

Owned<EVP_PKEY> makeKey() {
    Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
    require(key != nullptr, "no key");
    return key;
}

int daysOf(TestAuthority::Hours time) { return static_cast<int>(time.count() / 24); }
long secondsOf(TestAuthority::Hours time) { return static_cast<long>(time.count() % 24) * 3600; }

Owned<X509> makeCertificate(const std::string& name, EVP_PKEY* key, TestAuthority::Hours begin,
                            TestAuthority::Hours end) {
    Owned<X509> certificate(X509_new());
    require(certificate != nullptr, "no certificate");
    X509_set_version(certificate.get(), X509_VERSION_3);
    std::uint64_t serial = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1U);
    // Days, because a long of seconds may end after 68 years.
    X509_time_adj_ex(X509_getm_notBefore(certificate.get()), daysOf(begin), secondsOf(begin), nullptr);
    X509_time_adj_ex(X509_getm_notAfter(certificate.get()), daysOf(end), secondsOf(end), nullptr);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(name.data()), static_cast<int>(name.size()), -1,
                               0);
    return certificate;
}

void extend(X509* certificate, int kind, const std::string& value) {
    const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()));
    require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, "extension refused");
}

std::string textOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return {data, static_cast<std::size_t>(length)};
}

std::string pem(X509* certificate) {
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_X509(bio.get(), certificate) == 1, "no PEM");
    return textOf(bio.get());
}

std::string pem(EVP_PKEY* key) {
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "no PEM");
    return textOf(bio.get());
}

std::string der(X509* certificate) {
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    require(i2d_X509_bio(bio.get(), certificate) == 1, "no DER");
    return textOf(bio.get());
}

bool isAddress(const std::string& host) {
    std::array<unsigned char, 16> bytes{};
    return inet_pton(AF_INET, host.c_str(), bytes.data()) == 1 || inet_pton(AF_INET6, host.c_str(), bytes.data()) == 1;
}

}  // namespace

struct TestAuthority::Keys {
    Owned<EVP_PKEY> key;
    Owned<X509> certificate;
};

TestAuthority::TestAuthority(const std::string& name) : keys_(std::make_unique<Keys>()) {
    keys_->key = makeKey();
    keys_->certificate = makeCertificate(name, keys_->key.get(), Hours(-1), Hours(24));
    X509* const own = keys_->certificate.get();
    X509_set_issuer_name(own, X509_get_subject_name(own));
    extend(own, NID_basic_constraints, "critical,CA:TRUE");
    extend(own, NID_key_usage, "critical,keyCertSign,cRLSign");
    require(X509_sign(own, keys_->key.get(), EVP_sha256()) > 0, "not signed");
    certificate_ = pem(own);
}

TestAuthority::~TestAuthority() = default;

TestCertificate TestAuthority::issue(const std::string& host, Hours begin, Hours end) const {
    const auto key = makeKey();
    const auto certificate = makeCertificate(host, key.get(), begin, end);
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(keys_->certificate.get()));
    extend(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
    extend(certificate.get(), NID_subject_alt_name, (isAddress(host) ? "IP:" : "DNS:") + host);
    require(X509_sign(certificate.get(), keys_->key.get(), EVP_sha256()) > 0, "not signed");
    return {pem(certificate.get()), pem(key.get()), der(certificate.get())};
}

TestCertificate TestAuthority::selfSigned(const std::string& host) {
    const auto key = makeKey();
    const auto certificate = makeCertificate(host, key.get(), Hours(-1), Hours(24));
    X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
    extend(certificate.get(), NID_subject_alt_name, (isAddress(host) ? "IP:" : "DNS:") + host);
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "not signed");
    return {pem(certificate.get()), pem(key.get()), der(certificate.get())};
}

}  // namespace fakes
