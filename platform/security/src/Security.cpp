#include "security/Security.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "common/Descriptor.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr const char* systemBundle = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* phoneBundle = "/custom/certs/ca-bundle.pem";
constexpr std::size_t maxBundleSize = std::size_t{16} << 20U;
constexpr std::size_t maxCertificateSize = std::size_t{1} << 20U;

struct Free {
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* certificate) const { X509_free(certificate); }
};

[[noreturn]] void throwReadError(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), "Cannot read " + path);
}

std::unique_ptr<X509, Free> parse(const std::string& der) {
    if (der.size() > static_cast<std::size_t>(std::numeric_limits<long>::max())) return nullptr;
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    const auto* const end = at + der.size();
    std::unique_ptr<X509, Free> certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    ERR_clear_error();
    return at == end ? std::move(certificate) : nullptr;
}

// The content of a regular file of at most `limit` bytes. Does not block on a pipe.
std::string readFile(const std::string& path, std::size_t limit, int furtherFlags) {
    const common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | furtherFlags));
    if (file.get() < 0) throwReadError(path);
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) throwReadError(path);
    if (!S_ISREG(status.st_mode)) throw std::runtime_error("Cannot read " + path + ": not a regular file");

    std::string bytes;
    bytes.reserve(status.st_size > 0 ? static_cast<std::size_t>(status.st_size) : 0);
    std::array<char, 16384> buffer{};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throwReadError(path);
        if (count == 0) return bytes;
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
        if (bytes.size() > limit) throw std::runtime_error("Cannot read " + path + ": too long");
    }
}

struct Certificates {
    std::vector<std::string> der;
    std::size_t damaged = 0;  // certificate blocks that are not X.509
    std::size_t others = 0;   // blocks of another kind: keys, trusted certificates (with OpenSSL's trust settings)
};

// Whether each certificate is parsed to find damaged ones. That takes 0.1 ms each: too long for the 150 certificates of
// the system's bundle, which is generated and not edited by hand.
enum class Parse { yes, no };

Certificates certificatesFromPem(const std::string& text, Parse parsed) {
    Certificates found;
    const std::unique_ptr<BIO, Free> source(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (source == nullptr) throw std::bad_alloc();
    for (;;) {
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
        } else {
            found.der.push_back(std::move(der));
        }
    }
}

// Whether `der` is exactly one X.509 certificate and its dates include now.
bool isValidToday(const std::string& der) {
    const auto certificate = parse(der);
    if (certificate == nullptr) return false;
    // X509_cmp_current_time returns 0 for a date that cannot be read.
    return X509_cmp_current_time(X509_get0_notBefore(certificate.get())) < 0 &&
           X509_cmp_current_time(X509_get0_notAfter(certificate.get())) > 0;
}

enum class IfMissing { ignore, warn };

bool exists(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 || errno != ENOENT;
}

// A bundle that cannot be read counts as empty, so that the certificates of the other one are still trusted.
std::string readBundle(const char* path, IfMissing ifMissing) {
    if (ifMissing == IfMissing::ignore && !exists(path)) return "";
    try {
        return readFile(path, maxBundleSize, 0);  // the system's bundle is a link on some machines
    } catch (const std::exception& exception) {
        dbg::Debug::warning() << "Certificate bundle: " << exception.what() << std::endl;
        return "";
    }
}

// The content of the bundle files.
struct Bundles {
    std::string system = readBundle(systemBundle, IfMissing::warn);
    std::string phone = readBundle(phoneBundle, IfMissing::ignore);
};

Certificates decodeBundle(const char* path, const std::string& text, Parse parsed) {
    Certificates found = certificatesFromPem(text, parsed);
    if (found.damaged > 0) {
        dbg::Debug::warning() << "Certificate bundle " << path << ": " << found.damaged << " damaged entries, ignored"
                              << std::endl;
    }
    return found;
}

std::shared_ptr<const TrustedCertificates> decode(const Bundles& bundles) {
    Certificates all = decodeBundle(systemBundle, bundles.system, Parse::no);
    Certificates own = decodeBundle(phoneBundle, bundles.phone, Parse::yes);
    all.der.insert(all.der.end(), std::make_move_iterator(own.der.begin()), std::make_move_iterator(own.der.end()));
    return std::make_shared<const TrustedCertificates>(std::move(all.der));
}

}  // namespace

struct Security::State {
    // With the mutex held. Decodes the first bundles when they are first needed, to keep the start-up short.
    const std::shared_ptr<const TrustedCertificates>& current() {
        if (trusted == nullptr) {
            trusted = notified = decode(*first);
            first.reset();
        }
        return trusted;
    }

    std::mutex reloading;  // held while the bundles are read; taken before mutex
    std::mutex mutex;
    // Guarded by mutex.
    std::optional<Bundles> first = Bundles();
    std::shared_ptr<const TrustedCertificates> trusted;
    std::shared_ptr<const TrustedCertificates> notified;  // announced last
};

Security::Security(const std::shared_ptr<propertyapi::IPropertyApi>&) : state_(std::make_unique<State>()) {}

Security::~Security() = default;

void Security::reloadCertificates() {
    try {
        // Two reloads at once must not store their results in the wrong order.
        const std::lock_guard<std::mutex> oneAtATime(state_->reloading);
        const Bundles bundles;
        const std::lock_guard<std::mutex> lock(state_->mutex);
        auto read = decode(bundles);
        if (!read->sameAs(*state_->current())) state_->trusted = std::move(read);
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Cannot reload certificates: " << exception.what() << std::endl;
    }
}

void Security::notifySystemAboutNewCertificates() {
    try {
        std::size_t count = 0;
        {
            const std::lock_guard<std::mutex> lock(state_->mutex);
            if (state_->trusted == state_->notified || state_->trusted->sameAs(*state_->notified)) return;
            state_->notified = state_->trusted;
            count = state_->trusted->count();
        }
        dbg::Debug::info() << "Trusted certificates changed: " << count << " certificates" << std::endl;
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Cannot announce new certificates: " << exception.what() << std::endl;
    }
}

int Security::checkCertificate(const std::string& path) {
    const std::string bytes = readFile(path, maxCertificateSize, O_NOFOLLOW);
    if (isValidToday(bytes)) return 1;
    const Certificates found = certificatesFromPem(bytes, Parse::yes);
    // Whoever installs the file might use another block than the one that was checked.
    const bool single = found.der.size() == 1 && found.damaged == 0 && found.others == 0;
    return single && isValidToday(found.der.front()) ? 1 : 0;
}

std::shared_ptr<const TrustedCertificates> Security::trustedCertificates() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->current();
}

}  // namespace zav
