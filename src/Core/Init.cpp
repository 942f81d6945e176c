#include "Core/Init.h"

#include <thread>
#include <utility>

#include "Core/Constants.h"
#include "Core/GlobalConfig.h"
#include "Core/Utils.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr unsigned credentialWaits = 10;
constexpr int periodAttempts = 10;

}  // namespace

Init::Init(ProvisioningTimer& timer, std::shared_ptr<propertyapi::IPropertyApi> properties, InitTiming timing)
    : properties_(std::move(properties)), timer_(timer), timing_(timing) {}

void Init::run() {
    GlobalConfig::waitForPreconditions(properties_, credentialWaits, timing_.credentialsPause);
    GlobalConfig::readProperties(properties_);
    setTimer();
}

void Init::setTimer() {
    dbg::Debug::info() << "Setting timer" << std::endl;
    bool set = false;
    for (int attempt = 0; attempt < periodAttempts && !set; ++attempt) {
        try {
            const std::string period = properties_->get(constants.periodKey);
            timer_.start(checkPeriod(period));
            set = true;
            dbg::Debug::info() << "Timer set to " << period << " seconds" << std::endl;
        } catch (const std::exception& e) {
            dbg::Debug::error() << e.what() << std::endl;
            std::this_thread::sleep_for(timing_.periodPause);
        }
    }
    if (!set) dbg::Debug::error() << "Timer not set. Automatic provisioning disabled!" << std::endl;
}

}  // namespace zav
