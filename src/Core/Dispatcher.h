// The daemon's only receiver of bus messages: turns each into a key and a value and calls the handler for the key. It
// owns the provisioning worker, starts passes, answers the watchdog and the auto-reboot query, forwards settings that
// change, and runs the pass after boot-up.
//
// Threads: the three callbacks run on the bus client's delivery threads (one for each subscription, one for connection
// events), enableProvisioning on the network readiness thread, the rest on the main thread.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "Core/ProvisioningTimer.h"
#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"
#include "common/StopSignal.h"
#include "http/Curl.h"
#include "ipc/IIPCCallback.h"
#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"

namespace zav {

class Dispatcher : public ipc::IIPCCallback {
 public:
    Dispatcher(std::shared_ptr<ipc::IIPCClient> bus, std::shared_ptr<propertyapi::IPropertyApi> properties,
               ProvisioningTimer& timer, std::shared_ptr<Curl> http, Security& security);

    /// Lets go of the bus if stopListening did not: start-up may end in an exception.
    ~Dispatcher() override;
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    void connectionLost(const std::string& cause) override;
    void messageArrived(const std::string& topic, const std::string& content) override;
    void deliveryComplete(const std::string& topic) override;

    /// Subscribes and connects; from here on messages are logged. Throws std::runtime_error when the bus refuses.
    virtual void startListening();

    /// Lets go of the bus: a request that waits behind a pass is dropped, a held watchdog query stays unanswered, and
    /// no callback runs any more. The pass in hand goes on.
    virtual void stopListening();

    /// From here on messages are acted on.
    virtual void startHandling();

    /// The network is ready: provisioning requests count from here on, and the pass after boot-up runs, unless it ran
    /// before. Blocks until that pass has ended.
    virtual void enableProvisioning();

 private:
    using Handler = void (Dispatcher::*)(const std::string& value);

    void letGoOfBus();
    void dispatch(const std::string& content);
    void setDebugLevelMask(const std::string& value);
    void setTimerPeriod(const std::string& value);
    void storeProvisioningServer(const std::string& value);
    void handleProvisioningRequest(const std::string& value);
    void handleAutoRebootQuery(const std::string& value);
    void updateCertificateBundle(const std::string& value);
    void handleWatchdogQuery(const std::string& value);
    void provisionOnBootUp();

    const std::map<std::string, Handler> handlers_;
    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    ProvisioningTimer& timer_;
    Security& security_;
    ProvisioningWorker worker_;
    std::atomic<bool> provisioningEnabled_{false};
    std::atomic<bool> handlingStarted_{false};
    common::StopSignal stopping_;
};

}  // namespace zav
