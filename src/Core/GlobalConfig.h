// The few settings that several parts of the daemon read: what is installed, the provisioning server, and what a
// provisioning file must say to be ours. Filled from the property service at start-up and at the start of every pass.
//
// Threads: the main thread and pass starters fill it, the bus delivery thread replaces the server, the pass reads: the
// values that change are behind one mutex and copied out.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "propertyapi/IPropertyApi.h"

namespace zav {

class GlobalConfig {
 public:
    using Properties = std::shared_ptr<propertyapi::IPropertyApi>;

    /// The key's value; an empty text, and an error line, when it cannot be read.
    static std::string getValue(const Properties& properties, const std::string& key);

    /// Whether the factory user name and password are both there.
    static bool hasAuthCredentials(const Properties& properties);

    /// Waits until the factory credentials are there, `maxWaits` times `pause` at most, and goes on either way.
    static void waitForPreconditions(const Properties& properties, unsigned maxWaits, std::chrono::seconds pause);

    static void readProperties(const Properties& properties);

    static std::string softwareVersion();
    static std::string settingsVersion();
    static std::string customVersion();
    static std::string provisioningServer();
    static void setProvisioningServer(const std::string& url);

    /// The highest format version of provisioning files that is understood.
    static const std::string& fileFormatVersion();
    static const std::string& productIdentifier();
    static const std::string& defaultProvisioningServer();
};

}  // namespace zav
