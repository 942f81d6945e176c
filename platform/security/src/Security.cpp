#include "security/Security.h"

#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "Certificates.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr const char* systemBundle = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* phoneBundle = "/custom/certs/ca-bundle.pem";
constexpr std::size_t bundleLimit = std::size_t{16} << 20U;
constexpr std::size_t certificateLimit = std::size_t{1} << 20U;

enum class Absence { normal, remarkable };

bool exists(const char* path) {
    struct stat status {};
    return ::stat(path, &status) == 0 || errno != ENOENT;
}

// Adds what can be read; the rest is told, and the phone goes on with what it has.
void addBundle(const char* path, Absence absence, std::vector<std::string>& certificates) {
    if (absence == Absence::normal && !exists(path)) return;
    try {
        Certificates found = certificatesFromPem(readFile(path, bundleLimit, Links::follow));
        if (found.damaged > 0) {
            dbg::Debug::warning() << "Certificate bundle " << path << ": " << found.damaged
                                  << " damaged entries, ignored" << std::endl;
        }
        certificates.insert(certificates.end(), std::make_move_iterator(found.der.begin()),
                            std::make_move_iterator(found.der.end()));
    } catch (const std::exception& exception) {
        dbg::Debug::warning() << "Certificate bundle: " << exception.what() << std::endl;
    }
}

std::shared_ptr<const TrustedCertificates> readBundles() {
    std::vector<std::string> certificates;
    addBundle(systemBundle, Absence::remarkable, certificates);
    addBundle(phoneBundle, Absence::normal, certificates);
    return std::make_shared<const TrustedCertificates>(std::move(certificates));
}

}  // namespace

struct Security::State {
    explicit State(const std::shared_ptr<const TrustedCertificates>& first) : trusted(first), notified(first) {}

    mutable std::mutex mutex;
    // Guarded by mutex.
    std::shared_ptr<const TrustedCertificates> trusted;
    std::shared_ptr<const TrustedCertificates> notified;  // what the phone was told last
};

Security::Security(std::shared_ptr<propertyapi::IPropertyApi> properties)
    : properties_(std::move(properties)), state_(std::make_unique<State>(readBundles())) {}

Security::~Security() = default;

void Security::reloadCertificates() {
    try {
        auto read = readBundles();
        const std::lock_guard<std::mutex> lock(state_->mutex);
        if (!read->sameAs(*state_->trusted)) state_->trusted = std::move(read);
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Certificates were not reloaded: " << exception.what() << std::endl;
    }
}

void Security::notifySystemAboutNewCertificates() {
    try {
        std::size_t count = 0;
        {
            const std::lock_guard<std::mutex> lock(state_->mutex);
            if (state_->trusted->sameAs(*state_->notified)) return;
            state_->notified = state_->trusted;
            count = state_->trusted->count();
        }
        dbg::Debug::info() << "Trusted certificates changed: " << count << " certificates" << std::endl;
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Nobody was told about new certificates: " << exception.what() << std::endl;
    }
}

int Security::checkCertificate(const std::string& path) {
    const std::string bytes = readFile(path, certificateLimit, Links::refuse);
    if (isValidToday(bytes)) return 1;
    const Certificates found = certificatesFromPem(bytes);
    return found.der.size() == 1 && found.damaged == 0 && isValidToday(found.der.front()) ? 1 : 0;
}

std::shared_ptr<const TrustedCertificates> Security::trustedCertificates() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->trusted;
}

}  // namespace zav
