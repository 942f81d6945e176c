// Creates the handler for a job, chosen by the job's name and item name.
#pragma once

#include <memory>

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

enum class JobKind { categories, files, settings, scenario, firmware, unknown };

class JobHandlerFactory {
 public:
    /// Which handler runs the job.
    static JobKind kindOf(const std::string& name, const std::string& itemName);

    /// Returns null, and logs a warning, if no handler exists for the job. See JobHandler for the arguments.
    static std::unique_ptr<JobHandler> create(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                                              const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                              XMLReader& reader, ProgressReporter& progressReporter,
                                              ProvisioningStatusReporter& statusReporter);
};

}  // namespace zav
