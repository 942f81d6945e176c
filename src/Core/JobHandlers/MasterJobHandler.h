// The categories of a "1.0" initial file: for each one its job file is fetched and that file's jobs are run.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class MasterJobHandler : public JobHandler {
 public:
    MasterJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                     const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                     ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);

    /// Always success: the outcome is what the categories record in the status reporter.
    int run() override;

    virtual bool isSupportedJobType(const std::string& type);

 private:
    void runCategory(const std::string& type, const std::string& url);

    std::vector<JobDescription> jobs_;  // of the category at hand
};

}  // namespace zav
