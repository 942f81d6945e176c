#include "security/Security.h"

#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

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

// What can be read counts; the rest is told, and the phone goes on with what it has.
std::string readBundle(const char* path, Absence absence) {
    if (absence == Absence::normal && !exists(path)) return "";
    try {
        return readFile(path, bundleLimit, Links::follow);
    } catch (const std::exception& exception) {
        dbg::Debug::warning() << "Certificate bundle: " << exception.what() << std::endl;
        return "";
    }
}

// The bundles as they were at one moment.
struct Bundles {
    std::string system = readBundle(systemBundle, Absence::remarkable);
    std::string phone = readBundle(phoneBundle, Absence::normal);
};

std::shared_ptr<const TrustedCertificates> decode(const Bundles& bundles) {
    Certificates all = certificatesFromPem(bundles.system, Parse::no);
    Certificates own = certificatesFromPem(bundles.phone, Parse::yes);
    if (all.damaged > 0) {
        dbg::Debug::warning() << "Certificate bundle " << systemBundle << ": " << all.damaged
                              << " damaged entries, ignored" << std::endl;
    }
    if (own.damaged > 0) {
        dbg::Debug::warning() << "Certificate bundle " << phoneBundle << ": " << own.damaged
                              << " damaged entries, ignored" << std::endl;
    }
    all.der.insert(all.der.end(), std::make_move_iterator(own.der.begin()), std::make_move_iterator(own.der.end()));
    return std::make_shared<const TrustedCertificates>(std::move(all.der));
}

}  // namespace

struct Security::State {
    // What is trusted; with the mutex held. The first bundles are decoded when somebody wants to know: a start-up
    // does not.
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
    std::shared_ptr<const TrustedCertificates> notified;  // what the phone was told last
};

Security::Security(std::shared_ptr<propertyapi::IPropertyApi> properties)
    : properties_(std::move(properties)), state_(std::make_unique<State>()) {}

Security::~Security() = default;

void Security::reloadCertificates() {
    try {
        // Of two reloads at once the later must not put back what the earlier one read.
        const std::lock_guard<std::mutex> oneAtATime(state_->reloading);
        const Bundles bundles;
        const std::lock_guard<std::mutex> lock(state_->mutex);
        auto read = decode(bundles);
        if (!read->sameAs(*state_->current())) state_->trusted = std::move(read);
    } catch (const std::exception& exception) {
        dbg::Debug::error() << "Certificates were not reloaded: " << exception.what() << std::endl;
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
        dbg::Debug::error() << "Nobody was told about new certificates: " << exception.what() << std::endl;
    }
}

int Security::checkCertificate(const std::string& path) {
    const std::string bytes = readFile(path, certificateLimit, Links::refuse);
    if (isValidToday(bytes)) return 1;
    const Certificates found = certificatesFromPem(bytes, Parse::yes);
    // Whoever installs the file may read another of its blocks than the one that was checked: there must be one only.
    const bool single = found.der.size() == 1 && found.damaged == 0 && found.others == 0;
    return single && isValidToday(found.der.front()) ? 1 : 0;
}

std::shared_ptr<const TrustedCertificates> Security::trustedCertificates() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->current();
}

}  // namespace zav
