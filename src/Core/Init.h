// Start-up steps that need the property service: factory credentials, configuration, timer period. Threads: main
// thread.
#pragma once

#include <chrono>
#include <memory>

#include "Core/ProvisioningTimer.h"
#include "propertyapi/IPropertyApi.h"

namespace zav {

class Init {
 public:
    struct Timing {
        std::chrono::seconds credentialsPause{1};
        std::chrono::seconds periodPause{10};
    };

    Init(ProvisioningTimer& timer, std::shared_ptr<propertyapi::IPropertyApi> properties);
    Init(ProvisioningTimer& timer, std::shared_ptr<propertyapi::IPropertyApi> properties, Timing timing);

    /// Continues without what is missing. Blocks for up to 10 credentialsPause, then as setTimer does.
    void run();

    /// Starts the timer with the configured period. Retries 10 times, periodPause apart, if it cannot be read.
    void setTimer();

 private:
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    ProvisioningTimer& timer_;
    const Timing timing_;
};

}  // namespace zav
