// The result of a provisioning pass as a JSON document: a status for each job category and an overall status. Logged
// when the pass ends, kept until the next pass starts.
//
// Threads: any; the pass thread writes.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "common/ThreadSafety.h"

namespace zav {

/// Result of a job handler.
enum JobResult : int { jobFail = 0, jobPartSuccess = 1, jobSuccess = 2 };

class ProvisioningStatusReporter final {
 public:
    /// Records a result for the category of the handler, given by class name or job type. Ignores other names.
    void setJobStatus(const std::string& handlerName, int result);
    void setJobField(const std::string& handlerName, const std::string& key, const Json::Value& value);

    /// Computes the overall status, unless it is set already, and logs the document.
    void reportFinished();
    void setProvisioningStatus(const std::string& status);

    /// "success", "partSuccess" or "fail"; empty until the pass has finished.
    std::string getProvisioningStatus();

    void resetStatus();

    /// Waits for the overall status; empty after `timeout`.
    std::string waitForProvisioningStatus(std::chrono::milliseconds timeout);

 private:
    common::Mutex mutex_;
    common::ConditionVariable finished_;
    Json::Value document_ GUARDED_BY(mutex_);
};

}  // namespace zav
