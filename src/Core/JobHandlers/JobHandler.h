// The base of every job handler. One handler serves one job: made by the factory, run once, destroyed. What all
// handlers share stands here: choosing the newest of several published files, fetching a provisioning file, running
// further jobs.
//
// Everything runs on the pass thread. The job, security object, reader and reporters outlive the handler.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Core/JobHandlers/JobDescription.h"
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

    /// Does the job. Returns a JobResult. Blocks for as long as the job takes; may throw std::exception, which ends
    /// the pass as "fail".
    virtual int run() = 0;

    virtual const std::string& getName();

    /// The URL of the newest of the job's files, empty when none qualifies. Throws std::out_of_range for a file that
    /// has a version and no URL.
    virtual std::string findNewestUrl(const JobDescription& job);

    /// Runs a further job with a handler of its own and returns its result, 0 when there is no handler for it. At most
    /// Pass::maximumHandlerDepth handlers run inside each other: a file that includes itself ends as a failed job.
    /// Throws ShuttingDownException.
    virtual int startJob(const JobDescription& job);

    /// Downloads a provisioning file, verifies it and appends its jobs. Failures are logged. Throws what mayDownload
    /// throws.
    virtual bool downloadAndParse(const std::string& url, const std::string& destination,
                                  std::vector<JobDescription>& jobs);

 protected:
    /// Counts a file of any kind that is about to be downloaded. False, with a log line, when the pass has downloaded
    /// Pass::maximumFiles. Throws ShuttingDownException.
    static bool mayDownload(const std::string& url);

    const JobDescription* const job_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    const std::shared_ptr<Curl> curl_;
    Security& security_;
    XMLReader& reader_;
    ProgressReporter& progressReporter_;
    ProvisioningStatusReporter& statusReporter_;
    std::string handlerName_ = "JobHandler";
};

/// Removes the jobs that the version of the running pass does not allow, with a warning for each.
void removeJobsNotAllowed(std::vector<JobDescription>& jobs);

/// Whether the text is a version of a published file: a time stamp or the "V" form.
bool isValidVersion(const std::string& version);

}  // namespace zav
