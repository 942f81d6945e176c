#include "Core/JobHandlers/FirmwareJobHandler.h"

#include <algorithm>

#include "Core/Constants.h"
#include "Core/JobHandlers/PassObserver.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "common/Quote.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"
#include "version/FirmwareVersionConsts.h"
#include "version/IFirmwareVersionFactory.h"

namespace zav {

namespace {

constexpr const char* forceAcceptFlag = "FORCE_ACCEPT";
constexpr const char* automaticCheckOn = "1";
constexpr const char* updateByProvisioning = "provisioning-request";

}  // namespace

int FirmwareJobHandler::run() {
    int result = jobFail;
    triggeredByRequest_ = properties_->get(constants.firmwareTriggerAutoKey) == constants.requestWord;
    forceAccept_ = std::any_of(job_->items.begin(), job_->items.end(), [](const Attributes& item) {
        return attributeOr(item, "flags", "") == forceAcceptFlag;
    });
    automatic_ = properties_->get(constants.firmwareAutomaticCheckKey) == automaticCheckOn;
    if (!automatic_ && !triggeredByRequest_ && !forceAccept_) {
        PassObserver::current().firmwareNotWanted();
        return jobSuccess;
    }

    const std::string url = findUpgradableVersion();
    if (url.empty()) {
        dbg::Debug::warning() << "No newer versions found, finishing job" << std::endl;
    } else {
        cleanFirmwareUpdate(Pass::current().stop().get());
        result = downloadAndInstall(url);
    }
    if (triggeredByRequest_) {
        properties_->set(constants.firmwareTriggerAutoKey,
                         result == jobSuccess ? constants.successWord : constants.noVersionWord);
    }
    return result;
}

std::string FirmwareJobHandler::findUpgradableVersion() {
    if (job_->items.size() != 1) {
        dbg::Debug::warning() << "Multiple firmware version entries are not supported!" << std::endl;
        return {};
    }
    const Attributes& entry = job_->items.front();
    const std::string offered = attributeOr(entry, "version", "");
    if (!isUpgradable(offered)) return {};
    const std::string& url = entry.at("url");
    dbg::Debug::info() << "Found upgradable version: " << offered << " url: " << url << std::endl;
    return url;
}

bool FirmwareJobHandler::isUpgradable(const std::string& versionText) const {
    const auto& consts = version::FirmwareVersionConsts::getInstance();
    auto& factory = version::IFirmwareVersionFactory::getInstance();
    const auto running = factory.create(consts.currentVersion(), "");
    const auto offered = factory.create(consts.offeredVersion(), versionText);
    const version::Comparison outcome = running->compare(*offered);
    // A forced job may downgrade, an update that a user requested may not.
    const bool installs = outcome == version::Comparison::newer ||
                          (outcome == version::Comparison::older && forceAccept_ && !triggeredByRequest_);
    PassObserver::current().firmwareDecided(
        {running->text(), offered->text(), outcome, automatic_, triggeredByRequest_, forceAccept_, installs});
    if (installs) return true;
    switch (outcome) {
        case version::Comparison::older:
            dbg::Debug::error() << quote(offered->text(), running->text(), "is older than") << std::endl;
            return false;
        case version::Comparison::equal:
            dbg::Debug::error() << quote(offered->text(), running->text(), "is equal to") << std::endl;
            return false;
        case version::Comparison::malformed:
            dbg::Debug::error() << "New firmware version" << quote(offered->text()) << "is invalid!" << std::endl;
            return false;
        case version::Comparison::newer:
        case version::Comparison::noUpgradePath:
            break;
    }
    dbg::Debug::error() << "Current version is not upgradeable to:" << quote(offered->text()) << std::endl;
    return false;
}

int FirmwareJobHandler::downloadAndInstall(const std::string& url) {
    const UrlInfo urlInfo = makeJobUrlInfo(url, properties_->get(constants.provisioningServerKey));
    const std::string source = urlInfo.text();
    const std::string destination = formatUrl(firmwareDirectory + urlInfo.localName(), properties_);
    if (!countDownload(source)) return jobFail;
    if (!download("firmware", source, destination)) {
        statusReporter_.setJobField(getName(), "extraInfo", lastHttpStatus());
        return jobFail;
    }
    // The name on disk, with placeholders expanded: the updater looks for it there.
    properties_->set(constants.firmwareFilenameKey, destination.substr(firmwareDirectory.size()));
    if (triggeredByRequest_) {
        properties_->set(constants.firmwareVerifyKey, constants.requestWord);
    } else {
        properties_->set(constants.firmwareUpdateSystemKey, updateByProvisioning);
    }
    return jobSuccess;
}

}  // namespace zav
