// Receives all bus messages of the daemon and calls the handler for each message's key: starts passes, answers the
// watchdog and the auto-reboot query, applies changed settings. Also runs the boot-up pass. Owns the provisioning
// worker.
//
// Threads: the callbacks run on the bus client's delivery threads (one for each subscription, one for connection
// events), enableProvisioning on the network readiness thread, everything else on the main thread.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "Core/ProgressPublisher.h"
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

    /// Disconnects if stopListening was not called, as when start-up ends in an exception.
    ~Dispatcher() override;

    void connectionLost(const std::string& cause) override;
    void messageArrived(const std::string& topic, const std::string& content) override;
    void deliveryComplete(const std::string& topic) override;

    /// Subscribes and connects. Messages are logged from now on. Throws std::runtime_error if the bus refuses.
    virtual void startListening();

    /// Disconnects; no callback runs after it returns. Drops a request that waits for the running pass, leaves a
    /// pending watchdog query unanswered, and lets the running pass continue.
    virtual void stopListening();

    /// Messages are handled from now on.
    virtual void startHandling();

    /// Call when the network is ready: accepts provisioning requests from now on and runs the boot-up pass, unless it
    /// has run since boot. Blocks until that pass has ended.
    virtual void enableProvisioning();

 private:
    using Handler = void (Dispatcher::*)(const std::string& value);

    void disconnect();
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
    ProgressPublisher progress_;
    ProvisioningWorker worker_;
    std::atomic<bool> provisioningEnabled_{false};
    std::atomic<bool> handlingStarted_{false};
    common::StopSignal stopping_;
};

}  // namespace zav
