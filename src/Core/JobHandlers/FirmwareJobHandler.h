// A firmware job: decides whether the phone may move to the one version that is offered, downloads the image into the
// staging folder, and hands the update over to the system by writing state properties.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class FirmwareJobHandler : public JobHandler {
 public:
    FirmwareJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                       const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                       ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);

    int run() override;

    /// Blocks for the download. Throws UrlException for a URL that is none.
    virtual int downloadAndInstall(const std::string& url);

    /// The URL to download, empty when the job offers nothing that the phone may move to.
    virtual std::string findUpgradableVersion();

 private:
    bool isUpgradable(const std::string& versionText) const;

    bool triggeredByRequest_ = false;
    bool forceAccept_ = false;
};

}  // namespace zav
