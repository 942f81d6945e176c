// The part of start-up that depends on the property service: factory credentials, configuration, timer period.
// Runs on the main thread.
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

    /// Goes on whatever is missing; blocks for about 110 s at the most.
    void run();
    void setTimer();

 private:
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    ProvisioningTimer& timer_;
    const Timing timing_;
};

}  // namespace zav
