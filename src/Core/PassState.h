// Two values that belong to the provisioning pass at hand and are shared by everything that takes part in it.
// Threads: any.
#pragma once

#include <atomic>
#include <string>

namespace zav {

/// The version of the provisioning file that is being run; empty until the initial file is verified.
std::string currentProvisioningVersion();
void setCurrentProvisioningVersion(const std::string& version);

/// HTTP status of the initial download, or of the latest failed one after it; 0 when there was no answer.
extern std::atomic<int> lastHttpCode;

}  // namespace zav
