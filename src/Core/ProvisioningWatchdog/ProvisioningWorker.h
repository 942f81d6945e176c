// Runs one provisioning pass at a time on a thread of its own: downloads and verifies the initial file, runs a handler
// for each job, and publishes the result.
//
// A worker created on a pass thread runs passes nested in that pass (redirects), at most Pass::maximumDepth deep and
// Pass::maximumNestedPasses in all.
//
// Threads: any. startProvisioning, which the bus delivery threads, the network readiness thread and (for a nested
// worker) the outer pass call, is serialised. The pass thread signals progress, also during transfers. DeferredWrites
// retries failed writes of the end of a pass on a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
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
#include "common/ThreadSafety.h"
#include "http/Curl.h"
#include "http/UrlInfo.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"
#include "xml/XMLReader.h"

namespace zav {

class ProvisioningWorker : public IProvisioningWorker {
 public:
    /// A worker of an outermost pass publishes with `progress`, which may be null; a nested one with that of the pass
    /// around it.
    ProvisioningWorker(std::shared_ptr<propertyapi::IPropertyApi> properties, std::shared_ptr<Curl> curl,
                       Security& security, ProgressPublisher* progress = nullptr);

    /// Waits for the running pass.
    ~ProvisioningWorker() override;

    void startProvisioning(std::string url) override;
    void waitForProgress() override;
    bool isProvisioningFinished() override;
    std::string getProvisioningStatus() override;

    /// For shutdown: no new pass starts, callers that wait for the running pass or for progress return at once, and the
    /// running pass has StopSignal::grace left before it skips to its end action.
    void stop();

 private:
    using Completion = std::function<void()>;  // null: nothing to publish

    bool waitForPreviousPass() REQUIRES(startMutex_);
    void startThread(const UrlInfo& url, const Completion& completion) REQUIRES(startMutex_);
    void provisioningThreadMain(const UrlInfo& url, const Completion& completion);
    void passEnded();
    void startAction();
    void endAction(const Completion& completion);
    void downloadAndRun(const UrlInfo& url);
    int downloadInitialFile(const std::string& source, const std::string& destination);
    void runPass(const std::string& filePath);
    void runJobs(std::vector<JobDescription> jobs, XMLReader& reader);
    void publishResult();
    void onDownloadProgress(long downloadTotal, long downloaded, long uploadTotal, long uploaded);

    ProgressReporter progressReporter_;
    std::thread thread_ GUARDED_BY(startMutex_);
    std::atomic<bool> finished_{true};
    long lastProgress_ = 0;  // bytes; used by the transferring thread only
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    const std::shared_ptr<Curl> curl_;
    Security& security_;
    ProvisioningStatusReporter statusReporter_;

    Pass* const outer_;                               // null if not nested
    const std::shared_ptr<common::StopSignal> stop_;  // shared with the nested workers
    ProgressPublisher* const progress_;               // likewise; null if nobody is to be told

    common::Mutex startMutex_;  // held by startProvisioning from start to end
    DeferredWrites endWrites_;

    common::Mutex stateMutex_;
    common::ConditionVariable stateChanged_;
    bool passRunning_ GUARDED_BY(stateMutex_) = false;  // the pass thread has not reached passEnded
    bool stopping_ GUARDED_BY(stateMutex_) = false;
    unsigned progressWaiters_ GUARDED_BY(stateMutex_) = 0;
};

}  // namespace zav
