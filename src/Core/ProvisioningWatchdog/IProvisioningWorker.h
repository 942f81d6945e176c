// What the rest of the daemon may ask of provisioning: start a pass, watch it, read its result.
#pragma once

#include <string>

namespace zav {

class IProvisioningWorker {
 public:
    /// Starts a pass on `url`, or on the configured server when it is empty, and returns when its thread runs. While an
    /// earlier pass runs it waits for that first. Throws UrlException for a URL that cannot be split.
    virtual void startProvisioning(std::string url) = 0;

    /// Blocks until the running pass shows progress; returns at once when no pass runs.
    virtual void waitForProgress() = 0;

    virtual bool isProvisioningFinished() = 0;

    /// The overall status of the latest pass; empty until that is formed.
    virtual std::string getProvisioningStatus() = 0;

    virtual ~IProvisioningWorker() = default;
};

}  // namespace zav
