#include "Certificates.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "common/Descriptor.h"
#include "common/PathRoot.h"

namespace zav {

namespace {

struct Free {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
};

[[noreturn]] void throwReadError(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), "Cannot read " + path);
}

[[noreturn]] void throwTooLong(const std::string& path) {
    throw std::runtime_error("Cannot read " + path + ": too long");
}

std::unique_ptr<X509, Free> parse(const std::string& der) {
    if (der.size() > static_cast<std::size_t>(std::numeric_limits<long>::max())) return nullptr;
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    const auto* const end = at + der.size();
    std::unique_ptr<X509, Free> certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    ERR_clear_error();
    return at == end ? std::move(certificate) : nullptr;
}

}  // namespace

int openFile(const std::string& path, std::size_t limit, Links links) {
    const int noFollow = links == Links::refuse ? O_NOFOLLOW : 0;
    common::Descriptor file(::open(common::rooted(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | noFollow));
    if (file.get() < 0) throwReadError(path);
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) throwReadError(path);
    if (!S_ISREG(status.st_mode)) throw std::runtime_error("Cannot read " + path + ": not a regular file");
    if (static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0)) > limit) throwTooLong(path);
    return file.release();
}

std::string contentOf(int file, const std::string& path, std::size_t limit) {
    std::string bytes;
    struct stat status {};
    if (::fstat(file, &status) == 0) bytes.reserve(std::min(limit, static_cast<std::size_t>(status.st_size)));
    std::array<char, 16384> buffer{};
    for (;;) {
        const ssize_t count = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(bytes.size()));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throwReadError(path);
        if (count == 0) return bytes;
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
        if (bytes.size() > limit) throwTooLong(path);
    }
}

std::string readFile(const std::string& path, std::size_t limit, Links links) {
    const common::Descriptor file(openFile(path, limit, links));
    return contentOf(file.get(), path, limit);
}

Digest digestOf(const std::string& der) {
    Digest digest{};
    if (SHA256(reinterpret_cast<const unsigned char*>(der.data()), der.size(), digest.data()) == nullptr) {
        throw std::bad_alloc();
    }
    return digest;
}

OtherBlocks visitCertificates(const std::string& text, Parse parsed,
                              const std::function<void(std::string der, Place place)>& visit) {
    OtherBlocks found;
    const std::unique_ptr<BIO, Free> source(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (source == nullptr) throw std::bad_alloc();
    for (;;) {
        const std::size_t begin = text.size() - BIO_ctrl_pending(source.get());
        char* name = nullptr;
        char* header = nullptr;
        unsigned char* data = nullptr;
        long length = 0;
        // Unlike PEM_read_bio_X509, this function never asks for a password.
        const int read = PEM_read_bio(source.get(), &name, &header, &data, &length);
        if (read != 1) {
            const unsigned long error = ERR_peek_last_error();
            const bool end = ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
            ERR_clear_error();
            if (end || BIO_eof(source.get()) == 1) {
                if (!end) ++found.damaged;
                return found;
            }
            ++found.damaged;
            continue;
        }
        const std::string kind(name);
        std::string der(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
        if (kind != PEM_STRING_X509 && kind != PEM_STRING_X509_OLD) {
            ++found.others;
            continue;
        }
        if (parsed == Parse::yes && parse(der) == nullptr) {
            ++found.damaged;
            continue;
        }
        const std::size_t end = text.size() - BIO_ctrl_pending(source.get());
        visit(std::move(der), {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end - begin)});
    }
}

Certificates certificatesFromPem(const std::string& text, Parse parsed) {
    Certificates found;
    static_cast<OtherBlocks&>(found) =
        visitCertificates(text, parsed, [&found](std::string der, Place) { found.der.push_back(std::move(der)); });
    return found;
}

bool isValidToday(const std::string& der) {
    const auto certificate = parse(der);
    if (certificate == nullptr) return false;
    // X509_cmp_current_time returns 0 for a date that cannot be read.
    return X509_cmp_current_time(X509_get0_notBefore(certificate.get())) < 0 &&
           X509_cmp_current_time(X509_get0_notAfter(certificate.get())) > 0;
}

}  // namespace zav
