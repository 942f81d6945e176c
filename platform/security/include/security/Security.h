// What the phone trusts: the certificate bundles that downloads are verified against, and the check of a single
// certificate file. The system's own bundle always counts; the phone's, "/custom/certs/ca-bundle.pem", is added when
// it is there. OpenSSL parses everything in process.
//
// Threads: any. The first caller waits until the bundles are parsed. The constructor reads no property.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "propertyapi/IPropertyApi.h"
#include "security/TrustedCertificates.h"

namespace zav {

class Security {
 public:
    explicit Security(std::shared_ptr<propertyapi::IPropertyApi> properties);
    virtual ~Security();
    Security(const Security&) = delete;
    Security& operator=(const Security&) = delete;

    /// Reads the bundles again. A bundle that is missing or damaged is logged; what can be read counts. Never throws.
    virtual void reloadCertificates();

    /// Tells the rest of the phone that the trusted certificates are others than at the last call; does nothing when
    /// they are the same. Never throws, and never writes "State.Security.Certificates.UpdateCABundle".
    virtual void notifySystemAboutNewCertificates();

    /// Whether the file holds exactly one X.509 certificate, PEM or DER, that is valid today: 1 yes, 0 no. A second
    /// certificate would be one that nobody checked.
    /// Throws std::runtime_error when the file cannot be read: missing, a link, no regular file, over 1 MiB.
    virtual int checkCertificate(const std::string& path);

    /// What is trusted now: the system bundle and the phone's. The same object until a reload finds other certificates.
    virtual std::shared_ptr<const TrustedCertificates> trustedCertificates() const;

 private:
    struct State;
    std::shared_ptr<propertyapi::IPropertyApi> properties_;
    std::unique_ptr<State> state_;
};

}  // namespace zav
