#include "Core/JobHandlers/JobHandlerFactory.h"

#include <utility>

#include "Core/JobHandlers/CustomScenarioJobHandler.h"
#include "Core/JobHandlers/FileDownloadHandler.h"
#include "Core/JobHandlers/FirmwareJobHandler.h"
#include "Core/JobHandlers/MasterJobHandler.h"
#include "Core/JobHandlers/NVMJobHandler.h"
#include "Core/JobHandlers/PassObserver.h"
#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "debug/Debug.h"

namespace zav {

JobKind JobHandlerFactory::kindOf(const std::string& name, const std::string& itemName) {
    // The first match wins.
    if (name == "provisioning") return JobKind::categories;
    if ((name == "nvm" || name == "custom") && itemName == "file") return JobKind::files;
    if ((name == "nvm" && itemName == "param") || name == "settings") return JobKind::settings;
    if ((name == "custom" && itemName == "step") || name == "scenario") return JobKind::scenario;
    return name == "firmware" ? JobKind::firmware : JobKind::unknown;
}

std::unique_ptr<JobHandler> JobHandlerFactory::create(const JobDescription& job, std::shared_ptr<Curl> curl,
                                                      Security& security,
                                                      const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                                      XMLReader& reader, ProgressReporter& progressReporter,
                                                      ProvisioningStatusReporter& statusReporter) {
    switch (kindOf(job.name, job.itemName)) {
        case JobKind::categories:
            return std::make_unique<MasterJobHandler>(job, std::move(curl), security, properties, reader,
                                                      progressReporter, statusReporter);
        case JobKind::files:
            return std::make_unique<FileDownloadHandler>(job, std::move(curl), security, properties, reader,
                                                         progressReporter, statusReporter);
        case JobKind::settings:
            return std::make_unique<NVMJobHandler>(job, std::move(curl), security, properties, reader, progressReporter,
                                                   statusReporter);
        case JobKind::scenario: {
            // An HTTP client of its own: a shared one would keep the worker's progress callback after its destruction.
            auto worker =
                std::make_shared<ProvisioningWorker>(properties, std::make_shared<Curl>(curl->settings()), security);
            return std::make_unique<CustomScenarioJobHandler>(job, std::move(curl), security, properties, reader,
                                                              progressReporter, statusReporter, std::move(worker));
        }
        case JobKind::firmware:
            return std::make_unique<FirmwareJobHandler>(job, std::move(curl), security, properties, reader,
                                                        progressReporter, statusReporter);
        case JobKind::unknown:
            break;
    }
    dbg::Debug::warning() << "Unknown job type !" << std::endl;
    PassObserver::current().jobDropped(job, "unknown job type");
    return nullptr;
}

}  // namespace zav
