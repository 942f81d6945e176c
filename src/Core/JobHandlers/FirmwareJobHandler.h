// Decides whether the offered firmware version may be installed, downloads the image into the staging folder, and
// starts the system's updater by writing state properties.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class FirmwareJobHandler : public JobHandler {
 public:
    /// Takes the arguments of JobHandler.
    template <typename... Shared>
    explicit FirmwareJobHandler(const JobDescription& job, Shared&&... shared)
        : JobHandler(job, std::forward<Shared>(shared)...) {
        handlerName_ = "FirmwareJobHandler";
    }

    int run() override;

    /// Blocks for the download. Throws UrlException if the URL is invalid.
    virtual int downloadAndInstall(const std::string& url);

    /// The URL to download; empty if the offered version may not be installed.
    virtual std::string findUpgradableVersion();

 private:
    bool isUpgradable(const std::string& versionText) const;

    bool automatic_ = false;
    bool triggeredByRequest_ = false;
    bool forceAccept_ = false;
};

}  // namespace zav
