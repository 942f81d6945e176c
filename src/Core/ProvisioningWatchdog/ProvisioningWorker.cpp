#include "Core/ProvisioningWatchdog/ProvisioningWorker.h"

#include <utility>

#include "Core/Constants.h"
#include "Core/GlobalConfig.h"
#include "Core/JobHandlers/JobHandler.h"
#include "Core/JobHandlers/JobHandlerFactory.h"
#include "Core/JobHandlers/PassObserver.h"
#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "common/Memory.h"
#include "debug/Debug.h"
#include "http/CurlTypes.h"
#include "http/FileDownloader.h"
#include "http/FormatUrl.h"
#include "propertyapi/RecoveryScope.h"
#include "version/FirmwareVersionConsts.h"
#include "xml/XMLParser.h"

namespace zav {

namespace {

constexpr std::chrono::seconds statusWait{1};

// Logs what `step` throws, so that the steps after it still run.
template <typename Step>
void guarded(const char* name, Step step) {
    try {
        step();
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Could not " << name << ": " << e.what() << std::endl;
    } catch (...) {
        dbg::Debug::error() << "Could not " << name << std::endl;
    }
}

template <typename Action>
class AtScopeExit {
 public:
    explicit AtScopeExit(Action action) : action_(std::move(action)) {}
    ~AtScopeExit() { action_(); }
    AtScopeExit(const AtScopeExit&) = delete;
    AtScopeExit& operator=(const AtScopeExit&) = delete;

 private:
    Action action_;
};

}  // namespace

ProvisioningWorker::ProvisioningWorker(std::shared_ptr<propertyapi::IPropertyApi> properties,
                                       std::shared_ptr<Curl> curl, Security& security, ProgressPublisher* progress)
    : properties_(std::move(properties)),
      curl_(std::move(curl)),
      security_(security),
      outer_(Pass::ofThisThread()),
      stop_(outer_ == nullptr ? std::make_shared<common::StopSignal>() : outer_->stop()),
      progress_(outer_ == nullptr ? progress : outer_->progress()) {
    curl_->stopWith(stop_);
    curl_->setProgressCallback([this](long downloadTotal, long downloaded, long uploadTotal, long uploaded) {
        onDownloadProgress(downloadTotal, downloaded, uploadTotal, uploaded);
    });
}

ProvisioningWorker::~ProvisioningWorker() {
    if (thread_.joinable()) thread_.join();
    curl_->setProgressCallback({});
}

void ProvisioningWorker::stop() {
    {
        const common::LockGuard lock(stateMutex_);
        stopping_ = true;
    }
    stop_->stop();
    stateChanged_.notifyAll();
    progressReporter_.release();
}

// False if the process is shutting down.
bool ProvisioningWorker::waitForPreviousPass() {
    {
        const common::LockGuard lock(stateMutex_);
        // Waiters of the previous pass must be gone too, or a signal of the next pass would wake them.
        stateChanged_.wait(stateMutex_, [this]() REQUIRES(stateMutex_) {
            return (!passRunning_ && progressWaiters_ == 0) || stopping_;
        });
        if (stopping_) return false;
    }
    if (thread_.joinable()) thread_.join();
    return true;
}

void ProvisioningWorker::startProvisioning(std::string url) {
    endWrites_.cancel(DeferredWrites::Kind::result);  // a stale result must not overwrite this request
    const common::LockGuard serialised(startMutex_);
    if (outer_ != nullptr && !outer_->countNestedPass()) {
        dbg::Debug::error() << "Redirected too often, provisioning not started" << std::endl;
        statusReporter_.setProvisioningStatus(constants.failWord);
        return;
    }
    if (!isProvisioningFinished()) {
        dbg::Debug::warning() << "Previous provisioning is not finished yet. Waiting..." << std::endl;
    }
    if (!waitForPreviousPass()) return;
    dbg::Debug::info() << "Start provisioning thread" << std::endl;
    progressReporter_.resetProgress();
    finished_ = false;
    try {
        GlobalConfig::readProperties(properties_);
        version::FirmwareVersionConsts::getInstance().setRunningVersion(GlobalConfig::softwareVersion());
        const std::string configured = GlobalConfig::provisioningServer();
        if (!url.empty()) {
            startThread(makeUrlInfo(url), nullptr);
        } else if (!configured.empty()) {
            startThread(makeUrlInfo(configured), [this] { publishResult(); });
        } else {
            finished_ = true;
            dbg::Debug::error() << "Provisioning URL not set. Provisioning not started." << std::endl;
            progressReporter_.notifyProgress();
        }
    } catch (...) {
        progressReporter_.notifyProgress();  // release a waiter that arrived meanwhile
        throw;
    }
}

void ProvisioningWorker::startThread(const UrlInfo& url, const Completion& completion) {
    const common::LockGuard lock(stateMutex_);
    if (stopping_) {
        finished_ = true;
        return;
    }
    passRunning_ = true;
    try {
        thread_ = std::thread([this, url, completion] { provisioningThreadMain(url, completion); });
    } catch (...) {
        passRunning_ = false;
        finished_ = true;
        throw;
    }
}

void ProvisioningWorker::waitForProgress() {
    {
        const common::LockGuard lock(stateMutex_);
        // After an invalid URL `finished_` is false, but no pass runs.
        if (finished_ || !passRunning_) return;
        ++progressWaiters_;
    }
    progressReporter_.waitForProgress();
    bool othersWaitInVain = false;
    {
        const common::LockGuard lock(stateMutex_);
        --progressWaiters_;
        othersWaitInVain = !passRunning_ && progressWaiters_ > 0;
    }
    stateChanged_.notifyAll();
    // A signal wakes one waiter only, so once the pass is over each waiter wakes the next.
    if (othersWaitInVain) progressReporter_.notifyProgress();
}

bool ProvisioningWorker::isProvisioningFinished() { return finished_; }

// `finished_` is set shortly before the status is known: wait for it.
std::string ProvisioningWorker::getProvisioningStatus() {
    bool isEnding = false;
    {
        const common::LockGuard lock(stateMutex_);
        isEnding = finished_ && passRunning_;
    }
    return isEnding ? statusReporter_.waitForProvisioningStatus(statusWait) : statusReporter_.getProvisioningStatus();
}

void ProvisioningWorker::provisioningThreadMain(const UrlInfo& url, const Completion& completion) {
    const AtScopeExit ended([this] { passEnded(); });
    Pass pass(outer_, stop_, progress_);
    const propertyapi::RecoveryScope recovery;  // no setting is lost if the property service restarts
    endWrites_.cancel();                        // only a pass that starts makes the pending unlock stale
    guarded("start the pass", [this] { startAction(); });
    if (outer_ == nullptr) guarded("read the device certificate", [this] { security_.reloadDeviceIdentity(); });
    const AtScopeExit end([&] { endAction(completion); });
    try {
        downloadAndRun(url);
    } catch (const UrlException& e) {
        statusReporter_.setProvisioningStatus(constants.failWord);
        dbg::Debug::error() << e.what() << std::endl;
    } catch (const std::exception& e) {
        statusReporter_.setProvisioningStatus(constants.failWord);
        dbg::Debug::error() << "Something went wrong during provisioning process, an exception was thrown: " << e.what()
                            << std::endl;
    } catch (...) {
        statusReporter_.setProvisioningStatus(constants.failWord);
        dbg::Debug::error() << "Something went wrong during provisioning process, an exception was thrown: "
                            << "unknown" << std::endl;
    }
}

void ProvisioningWorker::passEnded() {
    if (outer_ == nullptr) {  // the next pass may be a day away
        common::releaseFreeMemory();
        common::releaseCode();
    }
    bool waited = false;
    {
        const common::LockGuard lock(stateMutex_);
        passRunning_ = false;
        waited = progressWaiters_ > 0;
    }
    stateChanged_.notifyAll();
    if (waited) progressReporter_.notifyProgress();
}

void ProvisioningWorker::startAction() {
    dbg::Debug::info() << "Provisioning Started" << std::endl;
    try {
        properties_->set(constants.provisioningLockUiKey, constants.uiLocked);
    } catch (...) {  // provision even if the screen cannot be locked
    }
    progressReporter_.notifyProgress();
    statusReporter_.resetStatus();
}

// `finished_` is set before the status is known: see getProvisioningStatus.
void ProvisioningWorker::endAction(const Completion& completion) {
    try {
        endWrites_.write(DeferredWrites::Kind::unlock,
                         [this] { properties_->set(constants.provisioningLockUiKey, constants.uiUnlocked); });
    } catch (...) {  // as in startAction
    }
    finished_ = true;
    dbg::Debug::info() << "Provisioning Finished" << std::endl;
    guarded("form the provisioning status", [this] {
        try {
            statusReporter_.reportFinished();
        } catch (...) {  // without memory; an empty status would be published
            statusReporter_.setProvisioningStatus(constants.failWord);
            throw;
        }
    });
    if (completion) guarded("publish the provisioning result", completion);
    guarded("notify about new certificates", [this] { security_.notifySystemAboutNewCertificates(); });
    progressReporter_.notifyProgress();
}

void ProvisioningWorker::downloadAndRun(const UrlInfo& url) {
    const std::string destination = provisioningDirectory + url.localName();
    const std::string source = url.text();
    dbg::Debug::info() << "Provisioning XML from: " << source << " to: " << destination << std::endl;
    const std::string expandedDestination = formatUrl(destination, properties_);
    const int result = downloadInitialFile(source, expandedDestination);
    const long httpCode = curl_->getHttpCode();
    lastHttpCode = static_cast<int>(httpCode);
    if (result == 0 && httpCode == httpOk) {
        runPass(expandedDestination);
        return;
    }
    dbg::Debug::error() << "Curl Error: " << CurlTypes::getCurlErrorDescription(result)
                        << " HTTP Error: " << CurlTypes::getHTTPCodeDescription(httpCode) << std::endl;
    dbg::Debug::error() << "Worker failed to download initial job" << std::endl;
    statusReporter_.setProvisioningStatus(constants.failWord);
}

int ProvisioningWorker::downloadInitialFile(const std::string& source, const std::string& destination) {
    const std::string name = "provisioning";
    const ProgressPublisher::Job progress(progress_, name, "bytes", 0);
    return FileDownloader(curl_, security_, properties_).downloadFile(source, destination);
}

void ProvisioningWorker::runPass(const std::string& filePath) {
    XMLParser reader;
    std::vector<JobDescription> jobs;
    ProvisioningFileParser parser(filePath, reader, properties_);
    setCurrentProvisioningVersion({});
    if (!parser.parseInitialFile()) {
        dbg::Debug::warning() << "Initial provisioning file verification failed" << std::endl;
        statusReporter_.setProvisioningStatus(constants.failWord);
        return;
    }
    parser.collectJobs(jobs);
    reader.release();
    dbg::Debug::info() << "Starting provisioning version: " << currentProvisioningVersion() << std::endl;
    removeJobsNotAllowed(jobs);
    runJobs(std::move(jobs), reader);
}

void ProvisioningWorker::runJobs(std::vector<JobDescription> jobs, XMLReader& reader) {
    dbg::Debug::info() << "Found " << jobs.size() << " valid provisioning job/s. " << std::endl;
    runEach(jobs, [&](const JobDescription& job) {
        Pass::current().throwIfOverdue();
        const auto handler =
            JobHandlerFactory::create(job, curl_, security_, properties_, reader, progressReporter_, statusReporter_);
        if (!handler) return;
        const ProgressPublisher::Job progress = progressOf(job);
        dbg::Debug::info() << "+++++ Starting " << handler->getName() << std::endl;
        const int result = runObserved(job, *handler);
        statusReporter_.setJobStatus(handler->getName(), result);
        dbg::Debug::info() << "-----Finishing " << handler->getName() << std::endl;
    });
}

void ProvisioningWorker::publishResult() {
    const std::string status = getProvisioningStatus();
    const std::string httpCode = std::to_string(lastHttpCode.load());
    guarded("publish the HTTP code", [&] {
        endWrites_.write(DeferredWrites::Kind::result,
                         [this, httpCode] { properties_->set(constants.provisioningHttpErrorCodeKey, httpCode); });
    });
    guarded("publish the status", [&] {
        endWrites_.write(DeferredWrites::Kind::result,
                         [this, status] { properties_->set(constants.provisioningStateKey, status); });
    });
    const bool succeeded = status == constants.successWord || status == constants.partSuccessWord;
    dbg::Debug::info() << (succeeded ? "Provisioning succeeded. " : "Provisioning failed. ") << std::endl;
    endWrites_.write(DeferredWrites::Kind::result, [this] {  // last, so it may throw to the caller
        if (properties_->get(constants.firmwareTriggerAutoKey) == constants.requestWord) {
            properties_->set(constants.firmwareTriggerAutoKey, constants.noVersionWord);
        }
    });
}

// Only received bytes count as progress.
void ProvisioningWorker::onDownloadProgress(long total, long downloaded, long, long) {
    if (downloaded == lastProgress_) return;
    lastProgress_ = downloaded;
    progressReporter_.notifyProgress();
    if (progress_ != nullptr) {
        progress_->report(static_cast<std::uint64_t>(downloaded), static_cast<std::uint64_t>(total));
    }
}

}  // namespace zav
