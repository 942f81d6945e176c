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

std::unique_ptr<JobHandler> JobHandlerFactory::create(const JobDescription& job, std::shared_ptr<Curl> curl,
                                                      Security& security,
                                                      const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                                      XMLReader& reader, ProgressReporter& progressReporter,
                                                      ProvisioningStatusReporter& statusReporter) {
    const auto is = [&](const char* name, const char* itemName) {
        return job.name == name && job.itemName == itemName;
    };
    // The first match wins.
    if (job.name == "provisioning") {
        return std::make_unique<MasterJobHandler>(job, std::move(curl), security, properties, reader, progressReporter,
                                                  statusReporter);
    }
    if (is("nvm", "file") || is("custom", "file")) {
        return std::make_unique<FileDownloadHandler>(job, std::move(curl), security, properties, reader,
                                                     progressReporter, statusReporter);
    }
    if (is("nvm", "param") || job.name == "settings") {
        return std::make_unique<NVMJobHandler>(job, std::move(curl), security, properties, reader, progressReporter,
                                               statusReporter);
    }
    if (is("custom", "step") || job.name == "scenario") {
        // An HTTP client of its own: a shared one would keep the worker's progress callback after its destruction.
        auto worker =
            std::make_shared<ProvisioningWorker>(properties, std::make_shared<Curl>(curl->settings()), security);
        return std::make_unique<CustomScenarioJobHandler>(job, std::move(curl), security, properties, reader,
                                                          progressReporter, statusReporter, std::move(worker));
    }
    if (job.name == "firmware") {
        return std::make_unique<FirmwareJobHandler>(job, std::move(curl), security, properties, reader,
                                                    progressReporter, statusReporter);
    }
    dbg::Debug::warning() << "Unknown job type !" << std::endl;
    PassObserver::current().jobDropped(job, "unknown job type");
    return nullptr;
}

}  // namespace zav
