// Runs one provisioning pass at a time on a thread of its own: downloads the initial file, has it verified, hands every
// job to a handler, and publishes the outcome. The heart of the daemon.
//
// A worker that is made while a pass runs, on that pass's thread, runs passes nested in it (a redirect): at most
// Pass::maximumDepth inside each other, and Pass::maximumNestedPasses in all.
//
// Threads: startProvisioning is called by the bus delivery thread and the network readiness thread, and serialises
// them; of a nested worker by the pass around it. The other operations are for any thread. The pass thread signals
// progress, also from inside transfers; a thread of DeferredWrites makes up for writes at a pass's end that failed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Core/JobHandlers/JobDescription.h"
#include "Core/Pass.h"
#include "Core/ProvisioningStatusReporter.h"
#include "Core/ProvisioningWatchdog/DeferredWrites.h"
#include "Core/ProvisioningWatchdog/IProvisioningWorker.h"
#include "Core/ProvisioningWatchdog/ProgressReporter.h"
#include "common/StopSignal.h"
#include "http/Curl.h"
#include "http/UrlInfo.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"
#include "xml/XMLReader.h"

namespace zav {

class ProvisioningWorker : public IProvisioningWorker {
 public:
    ProvisioningWorker(std::shared_ptr<propertyapi::IPropertyApi> properties, std::shared_ptr<Curl> curl,
                       Security& security);

    /// The same with a stop signal of the caller's.
    ProvisioningWorker(std::shared_ptr<propertyapi::IPropertyApi> properties, std::shared_ptr<Curl> curl,
                       Security& security, std::shared_ptr<common::StopSignal> stop);

    /// Waits for the pass in hand.
    ~ProvisioningWorker() override;
    ProvisioningWorker(const ProvisioningWorker&) = delete;
    ProvisioningWorker& operator=(const ProvisioningWorker&) = delete;

    void startProvisioning(std::string url) override;
    void waitForProgress() override;
    bool isProvisioningFinished() override;
    std::string getProvisioningStatus() override;

    /// The process is shutting down: no further pass starts, a caller that waits behind the running one returns at
    /// once, and waiters for progress are released. The pass in hand has a few seconds left (StopSignal::grace), and
    /// then goes no further than its end action.
    void stop();

 private:
    using Completion = std::function<void()>;

    bool startsTooManyNestedPasses() const;
    bool isPassRunning();
    bool beginToWait();
    void endWaiting();
    bool waitForPreviousPass();
    void startThread(const UrlInfo& url, const Completion& completion);
    void provisioningThreadMain(const UrlInfo& url, const Completion& completion);
    void passEnded();
    void startAction();
    void endAction(const Completion& completion);
    void downloadAndRun(const UrlInfo& url);
    void runPass(const std::string& filePath);
    void runJobs(std::vector<JobDescription> jobs, XMLReader& reader);
    void publishResult();
    void onDownloadProgress(long downloadTotal, long downloaded, long uploadTotal, long uploaded);

    ProgressReporter progressReporter_;
    std::thread thread_;  // guarded by startMutex_
    std::atomic<bool> finished_{true};
    long lastProgress_ = 0;  // of the transferring thread
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    const std::shared_ptr<Curl> curl_;
    Security& security_;
    ProvisioningStatusReporter statusReporter_;

    const unsigned depth_;                            // 1: not nested
    const std::shared_ptr<Pass::Usage> outerUsage_;   // of the pass that this one is nested in; null when it is not
    const std::shared_ptr<common::StopSignal> stop_;  // shared with the nested workers

    std::mutex startMutex_;  // held during the whole of startProvisioning; nothing else takes it
    DeferredWrites endWrites_;

    std::mutex stateMutex_;
    std::condition_variable stateChanged_;
    bool passRunning_ = false;      // guarded by stateMutex_: from the thread's start to its last action
    bool stopping_ = false;         // guarded by stateMutex_
    unsigned progressWaiters_ = 0;  // guarded by stateMutex_
};

}  // namespace zav
