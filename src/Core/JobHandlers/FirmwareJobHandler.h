// Decides whether the offered firmware version may be installed, downloads the image into the staging folder, and
// starts the system's updater by writing state properties.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class FirmwareJobHandler : public JobHandler {
 public:
    FirmwareJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                       const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                       ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);

    int run() override;

    /// Blocks for the download. Throws UrlException if the URL is invalid.
    virtual int downloadAndInstall(const std::string& url);

    /// The URL to download; empty if the offered version may not be installed.
    virtual std::string findUpgradableVersion();

 private:
    bool isUpgradable(const std::string& versionText) const;

    bool triggeredByRequest_ = false;
    bool forceAccept_ = false;
};

}  // namespace zav
