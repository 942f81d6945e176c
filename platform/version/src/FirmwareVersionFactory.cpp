#include <stdexcept>

#include "version/FirmwareVersionConsts.h"
#include "version/IFirmwareVersionFactory.h"

namespace version {

namespace {

class FirmwareVersionFactory : public IFirmwareVersionFactory {
 public:
    std::unique_ptr<FirmwareVersion> create(const std::string& kind, const std::string& text) override {
        const FirmwareVersionConsts& consts = FirmwareVersionConsts::getInstance();
        if (kind == consts.offeredVersion()) return std::make_unique<FirmwareVersion>(text);
        if (kind == consts.currentVersion()) return std::make_unique<FirmwareVersion>(consts.runningVersion());
        throw std::invalid_argument("Unknown kind of firmware version: " + kind);
    }
};

}  // namespace

IFirmwareVersionFactory& IFirmwareVersionFactory::getInstance() {
    static FirmwareVersionFactory factory;
    return factory;
}

FirmwareVersionConsts& FirmwareVersionConsts::getInstance() {
    static FirmwareVersionConsts consts;
    return consts;
}

void FirmwareVersionConsts::setRunningVersion(const std::string& text) {
    const common::LockGuard lock(mutex_);
    runningVersion_ = text;
}

std::string FirmwareVersionConsts::runningVersion() const {
    const common::LockGuard lock(mutex_);
    return runningVersion_;
}

}  // namespace version
