// The environment of a pass: the property service as a map, an HTTP client, a security object, a captured log, and a
// key file for encrypted provisioning files. Use one per test.
//
// Its source also keeps the XML library initialised for the whole test program: passes run on their own threads, and
// libxml2's clean-up must not run between them.
#pragma once

#include <memory>
#include <string>

#include "fakes/FakeProperties.h"
#include "fakes/LogCapture.h"
#include "http/Curl.h"
#include "security/Security.h"

namespace tests {

/// The properties of a phone with factory settings.
fakes::FakeProperties::Values factoryValues();

struct Phone {
    Phone();
    ~Phone();
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    fakes::LogCapture log;
    const std::shared_ptr<fakes::FakeProperties> properties;
    zav::Security security;
    std::shared_ptr<zav::Curl> curl;
};

std::string contentOf(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path);

/// Encrypts a provisioning file with the phone's pass phrase or with another one.
std::string encrypted(const std::string& content);
std::string encrypted(const std::string& content, const std::string& passPhrase);

/// A provisioning file for this phone: the root element with productID "kd4v" around `inside`.
std::string provisioningFile(const std::string& root, const std::string& version, const std::string& inside);

}  // namespace tests
