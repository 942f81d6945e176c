#include "security/Security.h"

#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "BundleFile.h"
#include "Certificates.h"
#include "common/PathRoot.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr const char* systemBundle = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* phoneBundle = "/custom/certs/ca-bundle.pem";
constexpr const char* identityFile = "/etc/zav.d/device.pem";
constexpr std::size_t maxBundleSize = std::size_t{16} << 20U;
constexpr std::size_t maxCertificateSize = std::size_t{1} << 20U;
constexpr std::size_t maxIdentitySize = std::size_t{1} << 20U;

bool exists(const char* path) {
    struct stat status {};
    return ::stat(common::rooted(path).c_str(), &status) == 0 || errno != ENOENT;
}

void warn(const std::exception& exception) {
    dbg::Debug::warning() << "Certificate bundle: " << exception.what() << std::endl;
}

// A bundle that cannot be read counts as empty, so that the certificates of the other one are still trusted.
std::shared_ptr<const BundleFile> openSystemBundle() {
    try {
        return std::make_shared<const BundleFile>(systemBundle, maxBundleSize);
    } catch (const std::exception& exception) {
        warn(exception);
        return nullptr;
    }
}

// As above.
std::string readPhoneBundle() {
    if (!exists(phoneBundle)) return "";
    try {
        return readFile(phoneBundle, maxBundleSize, Links::follow);
    } catch (const std::exception& exception) {
        warn(exception);
        return "";
    }
}

// The system's has most of the certificates and is updated by renaming: they stay in the file. The phone's own is small
// and may be written in place: it is read at once.
struct Bundles {
    std::shared_ptr<const BundleFile> system = openSystemBundle();
    std::string phone = readPhoneBundle();
};

void warnIfDamaged(const char* path, std::size_t entries) {
    if (entries == 0) return;
    dbg::Debug::warning() << "Certificate bundle " << path << ": " << entries << " damaged entries, ignored"
                          << std::endl;
}

std::shared_ptr<const TrustedCertificates> decode(const Bundles& bundles) {
    const Certificates own = certificatesFromPem(bundles.phone, Parse::yes);
    warnIfDamaged(phoneBundle, own.damaged);
    if (bundles.system == nullptr) return std::make_shared<const TrustedCertificates>(own.der);
    try {
        auto all = std::make_shared<const TrustedCertificates>(bundles.system, own.der);
        warnIfDamaged(systemBundle, all->damaged());
        return all;
    } catch (const std::runtime_error& error) {
        warn(error);
        return std::make_shared<const TrustedCertificates>(own.der);
    }
}

// The identity in the file; null if there is no file. Throws std::exception with the reason if it cannot be used.
std::shared_ptr<const DeviceIdentity> readIdentity() {
    if (!exists(identityFile)) return nullptr;
    const std::string pem = readFile(identityFile, maxIdentitySize, Links::follow);
    try {
        return std::make_shared<const DeviceIdentity>(pem);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string(identityFile) + " " + error.what());
    }
}

// Reads the identity and logs what is wrong with the file.
std::shared_ptr<const DeviceIdentity> checkedIdentity() {
    try {
        auto identity = readIdentity();
        struct stat status {};
        if (identity != nullptr && ::stat(common::rooted(identityFile).c_str(), &status) == 0 &&
            (status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
            dbg::Debug::warning() << "Device certificate: every user can read or replace the private key in "
                                  << identityFile << std::endl;
        }
        return identity;
    } catch (const std::exception& exception) {
        dbg::Debug::warning() << "Device certificate not used: " << exception.what() << std::endl;
        return nullptr;
    }
}

}  // namespace

struct Security::State {
    // Decodes the first bundles when they are first needed, to keep the start-up short.
    const std::shared_ptr<const TrustedCertificates>& current() REQUIRES(mutex) {
        if (trusted == nullptr) {
            trusted = notified = decode(*first);
            first.reset();
        }
        return trusted;
    }

    common::Mutex reloading;  // held while the bundles are read; taken before mutex
    common::Mutex mutex;
    std::optional<Bundles> first GUARDED_BY(mutex) = Bundles();
    std::shared_ptr<const TrustedCertificates> trusted GUARDED_BY(mutex);
    std::shared_ptr<const TrustedCertificates> notified GUARDED_BY(mutex);  // announced last
    std::shared_ptr<const DeviceIdentity> identity GUARDED_BY(mutex);
};

Security::Security(const std::shared_ptr<propertyapi::IPropertyApi>&) : state_(std::make_unique<State>()) {}

Security::~Security() = default;

void Security::reloadCertificates() {
    try {
        // Two reloads at once must not store their results in the wrong order.
        const common::LockGuard oneAtATime(state_->reloading);
        const Bundles bundles;
        const common::LockGuard lock(state_->mutex);
        auto read = decode(bundles);
        const auto& current = state_->current();
        // The set that is held reads the file that was opened for it, which may be damaged by now.
        if (!read->sameAs(*current) || !read->sameFileAs(*current)) state_->trusted = std::move(read);
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Cannot reload certificates: " << exception.what() << std::endl;
    }
}

void Security::notifySystemAboutNewCertificates() {
    try {
        std::size_t count = 0;
        {
            const common::LockGuard lock(state_->mutex);
            if (state_->trusted == state_->notified) return;
            // Also if it has the same certificates: the one before holds a file open.
            const auto before = std::exchange(state_->notified, state_->trusted);
            if (state_->trusted->sameAs(*before)) return;
            count = state_->trusted->count();
        }
        dbg::Debug::info() << "Trusted certificates changed: " << count << " certificates" << std::endl;
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Cannot announce new certificates: " << exception.what() << std::endl;
    }
}

int Security::checkCertificate(const std::string& path) {
    const std::string bytes = readFile(path, maxCertificateSize, Links::refuse);
    if (isValidToday(bytes)) return 1;
    const Certificates found = certificatesFromPem(bytes, Parse::yes);
    // The program that installs the file might use another block than the one that was checked.
    const bool single = found.der.size() == 1 && found.damaged == 0 && found.others == 0;
    return single && isValidToday(found.der.front()) ? 1 : 0;
}

std::shared_ptr<const TrustedCertificates> Security::trustedCertificates() const {
    const common::LockGuard lock(state_->mutex);
    return state_->current();
}

void Security::reloadDeviceIdentity() {
    auto read = checkedIdentity();
    const common::LockGuard lock(state_->mutex);
    const bool same = read != nullptr && state_->identity != nullptr && read->sameAs(*state_->identity);
    if (!same) state_->identity = std::move(read);
}

std::shared_ptr<const DeviceIdentity> Security::deviceIdentity() const {
    const common::LockGuard lock(state_->mutex);
    return state_->identity;
}

}  // namespace zav
