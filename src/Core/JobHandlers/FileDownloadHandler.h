// Downloads the newest of the provisioning files that a job lists, and runs that file's jobs.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class FileDownloadHandler : public JobHandler {
 public:
    FileDownloadHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                        const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                        ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);

    /// Returns the result of the last job that ran, jobFail if none ran.
    int run() override;
};

}  // namespace zav
