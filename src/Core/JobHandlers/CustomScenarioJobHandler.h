// Runs the steps of a scenario in document order. A failed step fails the job, but the remaining steps still run.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Core/JobHandlers/JobHandler.h"
#include "Core/ProvisioningWatchdog/IProvisioningWorker.h"
#include "http/UrlInfo.h"

namespace zav {

/// Where downloads of steps are stored, ending in "/".
inline const std::string phoneBookDirectory = "/var/volatile/contacts/";
inline const std::string certificateDirectory = "/custom/certs/_storage/";

class CustomScenarioJobHandler : public JobHandler {
 public:
    /// `worker` runs the passes that redirects start; it must not share `curl`.
    CustomScenarioJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                             const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                             ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter,
                             std::shared_ptr<IProvisioningWorker> worker);

    /// Success or fail, never partial success.
    int run() override;

    /// The step types that exist.
    static std::vector<std::string> stepTypes();

    virtual bool applyCertificateStep(const Attributes& step);

 private:
    using Step = bool (CustomScenarioJobHandler::*)(const Attributes& step);

    bool unlockAllFunctionKeysStep(const Attributes& step);
    bool redirectStep(const Attributes& step);
    bool localPhoneBookStep(const Attributes& step);
    bool applyCertificate(const std::string& fileName, const std::string& path, bool forceAccept);
    UrlInfo resolveStepUrl(const Attributes& step) const;
    bool downloadAndReport(const std::string& kind, const std::string& source, const std::string& destination);

    static const std::map<std::string, Step>& steps();

    const std::shared_ptr<IProvisioningWorker> worker_;
};

}  // namespace zav
