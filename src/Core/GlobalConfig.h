// Process-wide configuration: installed versions, provisioning server, and the product and format version that
// provisioning files must have. Read from the property service at start-up and at the start of every pass.
//
// Threads: any. One mutex guards the values; getters return copies.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "propertyapi/IPropertyApi.h"

namespace zav {

class GlobalConfig {
 public:
    using Properties = std::shared_ptr<propertyapi::IPropertyApi>;

    /// The property's value. Logs an error and returns an empty string if it cannot be read.
    static std::string getValue(const Properties& properties, const std::string& key);

    /// Whether factory user name and password are both set.
    static bool hasAuthCredentials(const Properties& properties);

    /// Waits until the factory credentials are set, for at most `maxWaits` times `pause`.
    static void waitForPreconditions(const Properties& properties, unsigned maxWaits, std::chrono::seconds pause);

    static void readProperties(const Properties& properties);

    static std::string softwareVersion();
    static std::string settingsVersion();
    static std::string customVersion();
    static std::string provisioningServer();
    static void setProvisioningServer(const std::string& url);

    /// The highest supported format version of provisioning files.
    static inline const std::string fileFormatVersion = "1.1";
    static inline const std::string productIdentifier = "kd4v";
    /// Deployments set their own host here; example.com has no such server.
    static inline const std::string defaultProvisioningServer = "provisioning.example.com";
};

}  // namespace zav
