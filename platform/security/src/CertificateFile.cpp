#include "security/CertificateFile.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <system_error>

namespace zav {

namespace {

struct Free {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
};

int refusePassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/) { return -1; }

CertificateFile::Entry entryOf(const X509* certificate) {
    std::array<char, 200> subject{};
    X509_NAME_oneline(X509_get_subject_name(certificate), subject.data(), static_cast<int>(subject.size()));
    std::tm date{};
    ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &date);
    return {subject.data(), std::chrono::system_clock::from_time_t(::timegm(&date))};
}

}  // namespace

CertificateFile::CertificateFile(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file && errno == ENOENT) return;
    if (!file) throw std::system_error(errno, std::generic_category(), path);
    const std::string pem((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::unique_ptr<BIO, Free> source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (source == nullptr) throw std::bad_alloc();
    for (;;) {
        const std::unique_ptr<X509, Free> one(PEM_read_bio_X509(source.get(), nullptr, refusePassPhrase, nullptr));
        const unsigned long error = ERR_peek_last_error();
        ERR_clear_error();
        if (one != nullptr) {
            certificates.push_back(entryOf(one.get()));
            continue;
        }
        if (ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE) return;
        ++damaged;
        if (BIO_eof(source.get()) == 1) return;
    }
}

}  // namespace zav
