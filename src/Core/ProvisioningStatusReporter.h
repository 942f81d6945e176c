// The outcome of one provisioning pass as a JSON document: a status per job category and one overall status. It is
// logged when the pass ends and kept until the next one starts.
//
// Threads: the pass writes, any thread may read; one mutex around the document.
#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace zav {

/// What a job handler returns.
enum JobResult : int { jobFail = 0, jobPartSuccess = 1, jobSuccess = 2 };

class ProvisioningStatusReporter final {
 public:
    /// Records the result word of a handler, given by its class name or its job type; any other name is ignored.
    virtual void setJobStatus(const std::string& handlerName, int result);
    virtual void setJobField(const std::string& handlerName, const std::string& key, const Json::Value& value);

    /// Forms the overall status, unless one was set before, and logs the document.
    virtual void reportFinished();
    virtual void setProvisioningStatus(const std::string& status);

    /// "success", "partSuccess" or "fail"; empty while the pass has not formed it.
    virtual std::string getProvisioningStatus();

    void resetStatus();

    /// The overall status as soon as it is formed; what there is of it after `timeout`.
    std::string waitForProvisioningStatus(std::chrono::milliseconds timeout);

 private:
    std::mutex mutex_;
    std::condition_variable formed_;
    Json::Value document_;  // guarded by mutex_
};

}  // namespace zav
