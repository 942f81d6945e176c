// Base class of the job handlers, with what they share: selecting the newest of several published files, downloading
// and verifying a provisioning file, running nested jobs. The factory creates one handler for each job; it runs once.
//
// Threads: the pass thread only. The job, security object, reader and reporters must outlive the handler.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Core/JobHandlers/JobDescription.h"
#include "Core/ProgressPublisher.h"
#include "Core/ProvisioningStatusReporter.h"
#include "Core/ProvisioningWatchdog/ProgressReporter.h"
#include "http/Curl.h"
#include "propertyapi/IPropertyApi.h"
#include "security/Security.h"
#include "xml/XMLReader.h"

namespace zav {

class JobHandler {
 public:
    JobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
               const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
               ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);
    virtual ~JobHandler() = default;
    JobHandler(const JobHandler&) = delete;
    JobHandler& operator=(const JobHandler&) = delete;

    /// Executes the job and returns a JobResult. Blocks until the job is done. An exception ends the pass as "fail".
    virtual int run() = 0;

    virtual const std::string& getName();

    /// The URL of the newest of the job's files; empty if no file has a valid version. Throws std::out_of_range if that
    /// file has no URL.
    virtual std::string findNewestUrl(const JobDescription& job);

    /// Runs a nested job and returns its result, or jobFail if no handler exists for it or if handlers are already
    /// nested Pass::maximumHandlerDepth deep (a file that includes itself). Throws ShuttingDownException.
    virtual int startJob(const JobDescription& job);

    /// Downloads a provisioning file, verifies it and appends its jobs. Logs the reason if it returns false. Throws
    /// ShuttingDownException.
    virtual bool downloadAndParse(const std::string& url, const std::string& destination,
                                  std::vector<JobDescription>& jobs);

 protected:
    /// Counts a file that is about to be downloaded. Logs an error and returns false once the pass has downloaded
    /// Pass::maximumFiles files. Throws ShuttingDownException.
    static bool countDownload(const std::string& url);

    /// Downloads a file that is not a provisioning file. On failure logs an error that calls it a `kind` file, records
    /// the HTTP status, and returns false. Blocks for the transfer. The log line names the caller's source file.
    bool download(const std::string& kind, const std::string& source, const std::string& destination,
                  const char* file = __builtin_FILE(), int line = __builtin_LINE());

    /// Records the HTTP status of the latest transfer and reports the job's provisioning file as failed.
    void reportFailedFile(const std::string& handlerName);

    /// In words, for reports.
    std::string lastHttpStatus() const;

    const JobDescription* const job_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    const std::shared_ptr<Curl> curl_;
    Security& security_;
    XMLReader& reader_;
    ProgressReporter& progressReporter_;
    ProvisioningStatusReporter& statusReporter_;
    std::string handlerName_ = "JobHandler";
};

/// False, with a log line of the given source position, if the job has no items.
bool hasItems(const JobDescription& job, const char* file, int line);

/// Publishes the progress of a job of the running pass for as long as the returned object lives: of a settings job its
/// settings, of any other the file that it downloads. The job must outlive the object, and its name be one of those
/// that have a handler.
ProgressPublisher::Job progressOf(const JobDescription& job);

/// Calls `runJob` for each job that has items, in order, and frees each job before the next one runs. Logs a line of
/// the caller's source file for a job without items.
template <typename RunJob>
void runEach(std::vector<JobDescription>& jobs, RunJob runJob, const char* file = __builtin_FILE(),
             int line = __builtin_LINE()) {
    for (JobDescription& next : jobs) {
        const JobDescription job = std::move(next);
        if (hasItems(job, file, line)) runJob(job);
    }
}

/// Job name and item name.
using AllowedJobs = std::vector<std::pair<std::string, std::string>>;

/// The jobs that a pass of this format version runs.
const AllowedJobs& allowedJobs(const std::string& version);

/// Removes the jobs that the format version of the running pass does not allow. Logs a warning for each.
void removeJobsNotAllowed(std::vector<JobDescription>& jobs);

/// What JobHandler::findNewestUrl returns; logs it. For a thread with a pass.
std::string newestUrl(const JobDescription& job);

/// Whether the text is the version of a published file: a time stamp or the "V" form. Logs a warning if not.
bool isValidVersion(const std::string& version);

}  // namespace zav
