// A job that points to a further provisioning file: the newest of its files is fetched and that file's jobs are run.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class FileDownloadHandler : public JobHandler {
 public:
    FileDownloadHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                        const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                        ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);

    /// The result of the last job of the file that ran, fail when none did.
    int run() override;
};

}  // namespace zav
