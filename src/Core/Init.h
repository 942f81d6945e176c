// Start-up steps that need the property service: waits for the factory credentials, reads the configuration, starts the
// timer. Threads: main.
#pragma once

#include <chrono>
#include <memory>

#include "Core/ProvisioningTimer.h"
#include "propertyapi/IPropertyApi.h"

namespace zav {

struct InitTiming {
    std::chrono::seconds credentialsPause{1};
    std::chrono::milliseconds periodPause{10000};
};

class Init {
 public:
    Init(ProvisioningTimer& timer, std::shared_ptr<propertyapi::IPropertyApi> properties, InitTiming timing = {});

    /// Continues without what is missing. Blocks for up to 10 credentialsPause, then as setTimer does.
    void run();

    /// Starts the timer with the configured period. Retries 10 times, periodPause apart, if it cannot be read.
    void setTimer();

 private:
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    ProvisioningTimer& timer_;
    const InitTiming timing_;
};

}  // namespace zav
