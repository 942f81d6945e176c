// Two process-wide values of the current provisioning pass. Threads: any.
#pragma once

#include <atomic>
#include <string>

namespace zav {

/// Format version of the running provisioning file; empty until the initial file is verified.
std::string currentProvisioningVersion();
void setCurrentProvisioningVersion(const std::string& version);

/// HTTP status of the initial download, or of the latest failed download after it; 0 if there was no response.
extern std::atomic<int> lastHttpCode;

}  // namespace zav
