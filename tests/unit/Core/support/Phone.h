// What a pass needs around it: the property service as a map, an HTTP client, a security object, a captured log, and a
// key file for encrypted provisioning files. One a test; everything of it is gone with it.
//
// The sources that use it also get the process's XML library for the life of the test program: passes run on threads
// of their own, and libxml2's clean-up must not come between them.
#pragma once

#include <memory>
#include <string>

#include "fakes/FakeProperties.h"
#include "fakes/LogCapture.h"
#include "http/Curl.h"
#include "security/Security.h"

namespace tests {

/// The properties of a phone that was just taken out of its box.
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

/// The content as the provisioning server's owner encrypts it, with the pass phrase of the phone or with another.
std::string encrypted(const std::string& content);
std::string encrypted(const std::string& content, const std::string& passPhrase);

/// A provisioning file for this phone: the root element with productID "kd4v" around `inside`.
std::string provisioningFile(const std::string& root, const std::string& version, const std::string& inside);

}  // namespace tests
