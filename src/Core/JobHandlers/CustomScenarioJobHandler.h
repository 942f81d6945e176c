// A scenario: its steps run in document order, each by the operation for its type. A step that fails makes the job fail
// and does not stop the others.
#pragma once

#include <map>

#include "Core/JobHandlers/JobHandler.h"
#include "Core/ProvisioningWatchdog/IProvisioningWorker.h"
#include "http/UrlInfo.h"

namespace zav {

class CustomScenarioJobHandler : public JobHandler {
 public:
    /// `worker` runs the pass that a redirect asks for; its HTTP client is not this handler's.
    CustomScenarioJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                             const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                             ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter,
                             std::shared_ptr<IProvisioningWorker> worker);

    /// Success or fail, never partial success.
    int run() override;

    virtual bool applyCertificateStep(const Attributes& step);

 private:
    using Step = bool (CustomScenarioJobHandler::*)(const Attributes& step);

    bool unlockAllFunctionKeysStep(const Attributes& step);
    bool redirectStep(const Attributes& step);
    bool localPhoneBookStep(const Attributes& step);
    bool applyCertificate(const std::string& fileName, const std::string& path, bool forceAccept);
    UrlInfo resolveStepUrl(const Attributes& step) const;
    bool download(const std::string& what, const std::string& source, const std::string& destination);

    const std::map<std::string, Step> steps_;
    const std::shared_ptr<IProvisioningWorker> worker_;
};

}  // namespace zav
