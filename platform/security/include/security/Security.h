// The certificates that the phone trusts, its own certificate, and the check of a single certificate file. Downloads
// are verified against the system's bundle and the phone's own, "/custom/certs/ca-bundle.pem", if it exists. OpenSSL
// parses in process.
//
// Threads: any. The first caller waits until the bundles are parsed. The constructor reads no property.
#pragma once

#include <memory>
#include <string>

#include "propertyapi/IPropertyApi.h"
#include "security/DeviceIdentity.h"
#include "security/TrustedCertificates.h"

namespace zav {

class Security {
 public:
    explicit Security(const std::shared_ptr<propertyapi::IPropertyApi>& properties);
    virtual ~Security();

    /// Reads the bundles again. Errors in a bundle are logged and the certificates that can be read are used. Does not
    /// throw.
    virtual void reloadCertificates();

    /// Announces the trusted certificates if they differ from those announced last: currently a log line. Never writes
    /// "State.Security.Certificates.UpdateCABundle". Does not throw.
    virtual void notifySystemAboutNewCertificates();

    /// Returns 1 if the file consists of exactly one X.509 certificate, PEM or DER, whose dates include now; else 0.
    /// Throws std::runtime_error if the file is missing, not a regular file, a symbolic link or larger than 1 MiB.
    virtual int checkCertificate(const std::string& path);

    /// The certificates of both bundles. Returns the same object until a reload finds other certificates or another
    /// file of the system's bundle, which stays open.
    virtual std::shared_ptr<const TrustedCertificates> trustedCertificates() const;

    /// Reads the phone's own certificate and key again from "/etc/zav.d/device.pem". Without that file the phone has
    /// none. Logs one warning if the file cannot be used, or if other users can read it. Does not throw.
    virtual void reloadDeviceIdentity();

    /// What the last reload found; null if the phone has no certificate that can be used. Returns the same object until
    /// the content of the file changes.
    virtual std::shared_ptr<const DeviceIdentity> deviceIdentity() const;

 private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace zav
