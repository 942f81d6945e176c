#include "Core/JobHandlers/CustomScenarioJobHandler.h"

#include <utility>

#include "Core/Constants.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "common/Quote.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"

namespace zav {

namespace {

constexpr const char* urlAttribute = "url";
constexpr const char* forceAcceptFlag = "FORCE_ACCEPT";
constexpr int functionKeys = 8;

}  // namespace

CustomScenarioJobHandler::CustomScenarioJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl,
                                                   Security& security,
                                                   const std::shared_ptr<propertyapi::IPropertyApi>& properties,
                                                   XMLReader& reader, ProgressReporter& progressReporter,
                                                   ProvisioningStatusReporter& statusReporter,
                                                   std::shared_ptr<IProvisioningWorker> worker)
    : JobHandler(job, std::move(curl), security, properties, reader, progressReporter, statusReporter),
      worker_(std::move(worker)) {
    handlerName_ = "CustomScenarioJobHandler";
}

const std::map<std::string, CustomScenarioJobHandler::Step>& CustomScenarioJobHandler::steps() {
    static const std::map<std::string, Step> steps{
        {"certificate", &CustomScenarioJobHandler::applyCertificateStep},
        {"UnlockAllFunctionKeys", &CustomScenarioJobHandler::unlockAllFunctionKeysStep},
        {"Redirect", &CustomScenarioJobHandler::redirectStep},
        {"LocalPhoneBook", &CustomScenarioJobHandler::localPhoneBookStep}};
    return steps;
}

std::vector<std::string> CustomScenarioJobHandler::stepTypes() {
    std::vector<std::string> types;
    for (const auto& [type, operation] : steps()) types.push_back(type);
    return types;
}

int CustomScenarioJobHandler::run() {
    bool ok = true;
    for (const Attributes& step : job_->items) {
        Pass::current().throwIfOverdue();
        const std::string type = attributeOr(step, "type", "???");
        const auto operation = steps().find(type);
        if (operation == steps().end()) {
            dbg::Debug::warning() << "Custom step type " << quote(type) << " not implemented" << std::endl;
            continue;
        }
        dbg::Debug::info() << "Executing step: " << quote(type) << std::endl;
        const bool succeeded = (this->*operation->second)(step);
        ok = ok && succeeded;
    }
    return ok ? jobSuccess : jobFail;
}

UrlInfo CustomScenarioJobHandler::resolveStepUrl(const Attributes& step) const {
    return makeJobUrlInfo(step.at(urlAttribute), properties_->get(constants.provisioningServerKey));
}

bool CustomScenarioJobHandler::downloadAndReport(const std::string& kind, const std::string& source,
                                                 const std::string& destination) {
    if (!countDownload(source)) return false;
    if (download(kind, source, destination)) return true;
    statusReporter_.setJobField(job_->name, "extraInfo", "HTTP: " + lastHttpStatus());
    return false;
}

bool CustomScenarioJobHandler::applyCertificateStep(const Attributes& step) {
    const UrlInfo urlInfo = resolveStepUrl(step);
    const std::string source = urlInfo.text();
    const std::string flags = attributeOr(step, "flags", "");
    dbg::Debug::info() << "Downloading certificate from URL " << quote(source) << " with flags " << quote(flags)
                       << std::endl;
    const std::string destination = formatUrl(certificateDirectory + urlInfo.localName(), properties_);
    // The error line calls a certificate a firmware file too.
    if (!downloadAndReport("firmware", source, destination)) return false;
    return applyCertificate(destination.substr(certificateDirectory.size()), destination, flags == forceAcceptFlag);
}

bool CustomScenarioJobHandler::applyCertificate(const std::string& fileName, const std::string& path,
                                                bool forceAccept) {
    dbg::Debug::info() << "Applying certificate " << quote(fileName) << std::endl;
    try {
        if (security_.checkCertificate(path) == 0) {
            properties_->set(constants.certificateInvalidKey, fileName);
        } else {
            properties_->set(forceAccept ? constants.certificateAcceptKey : constants.certificatePendingKey, fileName);
        }
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Error applying certificate " << quote(fileName, path, "=") << e.what() << std::endl;
        return false;
    }
    return true;
}

// No dot before "LockProvisioning", unlike in the keys that settings jobs read.
bool CustomScenarioJobHandler::unlockAllFunctionKeysStep(const Attributes&) {
    for (int key = 0; key < functionKeys; ++key) {
        properties_->set("FunctionKeys." + std::to_string(key) + "LockProvisioning", "0");
    }
    return true;
}

bool CustomScenarioJobHandler::redirectStep(const Attributes& step) {
    const std::string version = currentProvisioningVersion();
    worker_->startProvisioning(step.at(urlAttribute));
    do {
        worker_->waitForProgress();
        progressReporter_.notifyProgress();  // the watchdog waits for progress of the outer pass
    } while (!worker_->isProvisioningFinished());
    setCurrentProvisioningVersion(version);  // the nested pass set that of its own files
    return worker_->getProvisioningStatus() == constants.successWord;
}

bool CustomScenarioJobHandler::localPhoneBookStep(const Attributes& step) {
    if (properties_->get(constants.provisioningStateKey) == constants.requestCheckSyncWord) {
        dbg::Debug::info() << "Download of local phone book skipped" << std::endl;
        return true;
    }
    const UrlInfo urlInfo = resolveStepUrl(step);
    const std::string source = urlInfo.text();
    dbg::Debug::info() << "Downloading PhoneBook from URL " << quote(source) << std::endl;
    const std::string fileName = urlInfo.localName();
    if (!downloadAndReport("LocalPhoneBook", source, phoneBookDirectory + fileName)) return false;
    properties_->set(constants.phoneBookFileNameKey, fileName);
    properties_->set(constants.phoneBookVerifyKey, constants.requestWord);
    const std::string renewPeriod = attributeOr(step, "renewPeriod", "");
    if (!renewPeriod.empty()) properties_->set(constants.periodKey, renewPeriod);
    return true;
}

}  // namespace zav
