#include "security/DeviceIdentity.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <new>
#include <stdexcept>

#include "Certificates.h"

namespace zav {

namespace {

struct Free {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};

std::string dateOf(const ASN1_TIME* time) {
    std::tm parts{};
    if (ASN1_TIME_to_tm(time, &parts) != 1) return "an unreadable date";
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts);
    return text.data();
}

// Answers the question for the pass phrase of an encrypted key: there is none, because nobody is there to type it.
int refusePassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* asked) {
    *static_cast<bool*>(asked) = true;
    return -1;
}

std::shared_ptr<EVP_PKEY> keyIn(const std::string& pem) {
    const std::unique_ptr<BIO, Free> source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (source == nullptr) throw std::bad_alloc();
    bool encrypted = false;
    std::shared_ptr<EVP_PKEY> key(PEM_read_bio_PrivateKey(source.get(), nullptr, refusePassPhrase, &encrypted),
                                  EVP_PKEY_free);
    ERR_clear_error();
    if (encrypted) throw std::runtime_error("has an encrypted private key, for which there is no pass phrase");
    if (key == nullptr) throw std::runtime_error("has a damaged private key");
    return key;
}

void requireValidToday(const X509* certificate) {
    // X509_cmp_current_time returns 0 for a date that cannot be read.
    const ASN1_TIME* const begin = X509_get0_notBefore(certificate);
    const ASN1_TIME* const end = X509_get0_notAfter(certificate);
    if (X509_cmp_current_time(end) <= 0) throw std::runtime_error("expired on " + dateOf(end));
    if (X509_cmp_current_time(begin) >= 0) throw std::runtime_error("is not valid before " + dateOf(begin));
}

}  // namespace

DeviceIdentity::DeviceIdentity(const std::string& pem) {
    const Certificates found = certificatesFromPem(pem, Parse::yes);
    if (found.damaged > 0) throw std::runtime_error("has a damaged certificate or key");
    if (found.der.empty()) throw std::runtime_error("has no certificate");
    if (found.others == 0) throw std::runtime_error("has no private key");
    for (const std::string& der : found.der) {
        const auto* at = reinterpret_cast<const unsigned char*>(der.data());
        intermediates_.emplace_back(d2i_X509(nullptr, &at, static_cast<long>(der.size())), X509_free);
    }
    certificate_ = intermediates_.front();
    intermediates_.erase(intermediates_.begin());
    key_ = keyIn(pem);
    const bool matches = X509_check_private_key(certificate_.get(), key_.get()) == 1;
    ERR_clear_error();
    if (!matches) throw std::runtime_error("has a private key that does not belong to its first certificate");
    requireValidToday(certificate_.get());
    const std::unique_ptr<SSL_CTX, Free> trial(SSL_CTX_new(TLS_client_method()));
    if (trial == nullptr) throw std::bad_alloc();
    if (useIn(trial.get())) return;
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    throw std::runtime_error(std::string("is refused by OpenSSL: ") + (reason == nullptr ? "unknown reason" : reason));
}

bool DeviceIdentity::sameAs(const DeviceIdentity& other) const {
    const auto equal = [](const auto& a, const auto& b) { return X509_cmp(a.get(), b.get()) == 0; };
    return equal(certificate_, other.certificate_) && EVP_PKEY_eq(key_.get(), other.key_.get()) == 1 &&
           std::equal(intermediates_.begin(), intermediates_.end(), other.intermediates_.begin(),
                      other.intermediates_.end(), equal);
}

bool DeviceIdentity::useIn(SSL_CTX* context) const {
    const std::unique_ptr<STACK_OF(X509), Free> chain(sk_X509_new_null());
    if (chain == nullptr) return false;
    for (const auto& certificate : intermediates_) {
        if (sk_X509_push(chain.get(), certificate.get()) == 0) return false;
    }
    return SSL_CTX_use_cert_and_key(context, certificate_.get(), key_.get(), chain.get(), 1) == 1;
}

}  // namespace zav
