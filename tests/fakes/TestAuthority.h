// A certificate authority for one test: it signs what the test's servers show, and its own certificate is what a phone
// may be told to trust. Keys are made in memory and die with it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace fakes {

/// A certificate and its private key, both PEM.
struct TestCertificate {
    std::string certificate;
    std::string key;
    std::string der;  // the certificate again
};

class TestAuthority {
 public:
    using Hours = std::chrono::hours;

    explicit TestAuthority(const std::string& name = "Test authority");
    ~TestAuthority();
    TestAuthority(const TestAuthority&) = delete;
    TestAuthority& operator=(const TestAuthority&) = delete;

    /// What to trust, PEM.
    const std::string& certificate() const { return certificate_; }

    /// A server certificate for a host name or an IP address; it is valid from now + `begin` to now + `end`.
    TestCertificate issue(const std::string& host, Hours begin = Hours(-1), Hours end = Hours(24)) const;

    /// A server certificate that nobody signed but its own key.
    static TestCertificate selfSigned(const std::string& host);

 private:
    struct Keys;
    std::unique_ptr<Keys> keys_;
    std::string certificate_;
};

}  // namespace fakes
