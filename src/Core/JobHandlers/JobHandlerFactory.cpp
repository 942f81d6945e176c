#include "Core/JobHandlers/JobHandlerFactory.h"

#include "Core/JobHandlers/FileDownloadHandler.h"
#include "Core/JobHandlers/MasterJobHandler.h"
#include "Core/JobHandlers/NVMJobHandler.h"
#include "debug/Debug.h"

namespace zav {

std::unique_ptr<JobHandler> JobHandlerFactory::create(const JobDescription& job, std::shared_ptr<Curl> curl,
                                                      Security& security,
                                                      const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                                      XMLReader& reader, ProgressReporter& progressReporter,
                                                      ProvisioningStatusReporter& statusReporter) {
    const auto is = [&](const char* name, const char* itemName) {
        return job.name == name && job.itemName == itemName;
    };
    const auto make = [&](auto* handlerType) -> std::unique_ptr<JobHandler> {
        using Handler = std::remove_pointer_t<decltype(handlerType)>;
        return std::make_unique<Handler>(job, std::move(curl), security, properties, reader, progressReporter,
                                         statusReporter);
    };
    // The first rule that matches decides.
    if (job.name == "provisioning") return make(static_cast<MasterJobHandler*>(nullptr));
    if (is("nvm", "file") || is("custom", "file")) return make(static_cast<FileDownloadHandler*>(nullptr));
    if (is("nvm", "param") || job.name == "settings") return make(static_cast<NVMJobHandler*>(nullptr));
    dbg::Debug::warning() << "Unknown job type !" << std::endl;
    return nullptr;
}

}  // namespace zav
