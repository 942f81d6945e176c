// A certificate authority for a test: it signs the certificates of the test's servers, and a phone can be made to trust
// its own certificate. Keys exist in memory only.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace fakes {

/// A certificate and its private key, both PEM.
struct TestCertificate {
    std::string certificate;
    std::string key;
    std::string der;  // the certificate as DER

    /// Both in one text, as in a device's file.
    std::string pem() const { return certificate + key; }
};

class TestAuthority {
 public:
    using Hours = std::chrono::hours;

    explicit TestAuthority(const std::string& name = "Test authority");
    ~TestAuthority();
    TestAuthority(const TestAuthority&) = delete;
    TestAuthority& operator=(const TestAuthority&) = delete;

    /// The certificate to trust, PEM.
    const std::string& certificate() const { return certificate_; }

    /// A server certificate for a host name or an IP address; valid from now + `begin` to now + `end`.
    TestCertificate issue(const std::string& host, Hours begin = Hours(-1), Hours end = Hours(24)) const;

    /// A self-signed server certificate.
    static TestCertificate selfSigned(const std::string& host);

 private:
    struct Keys;
    std::unique_ptr<Keys> keys_;
    std::string certificate_;
};

}  // namespace fakes
