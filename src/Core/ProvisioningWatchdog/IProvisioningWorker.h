// Starts and observes provisioning passes.
#pragma once

#include <string>

namespace zav {

class IProvisioningWorker {
 public:
    /// Starts a pass with `url`, or with the configured server if it is empty, and returns once the pass thread runs.
    /// Waits for the previous pass to end first. Throws UrlException if the URL is invalid.
    virtual void startProvisioning(std::string url) = 0;

    /// Blocks until the running pass reports progress; returns at once if no pass runs.
    virtual void waitForProgress() = 0;

    virtual bool isProvisioningFinished() = 0;

    /// The overall status of the latest pass; empty until it is known.
    virtual std::string getProvisioningStatus() = 0;

    virtual ~IProvisioningWorker() = default;
};

}  // namespace zav
