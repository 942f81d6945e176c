// Creates the handler for a job, chosen by the job's name and item name.
#pragma once

#include <memory>

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class JobHandlerFactory {
 public:
    /// Returns null, and logs a warning, if no handler exists for the job. See JobHandler for the arguments.
    static std::unique_ptr<JobHandler> create(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                                              const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                              XMLReader& reader, ProgressReporter& progressReporter,
                                              ProvisioningStatusReporter& statusReporter);
};

}  // namespace zav
