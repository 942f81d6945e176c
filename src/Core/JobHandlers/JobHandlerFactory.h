// Chooses the handler for a job by the job's name and item name.
#pragma once

#include <memory>

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class JobHandlerFactory {
 public:
    /// The handler, or null, with a warning, for a job that none is for. The arguments are those of JobHandler.
    static std::unique_ptr<JobHandler> create(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                                              const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                              XMLReader& reader, ProgressReporter& progressReporter,
                                              ProvisioningStatusReporter& statusReporter);
};

}  // namespace zav
