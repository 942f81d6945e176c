// Runs the categories of a "1.0" initial file: downloads the job file of each category and runs its jobs.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class MasterJobHandler : public JobHandler {
 public:
    /// Takes the arguments of JobHandler.
    template <typename... Shared>
    explicit MasterJobHandler(const JobDescription& job, Shared&&... shared)
        : JobHandler(job, std::forward<Shared>(shared)...) {
        handlerName_ = "MasterJobHandler";
    }

    /// Always returns jobSuccess: each category reports its own result to the status reporter.
    int run() override;

    /// The category types that exist; others are passed over.
    static const std::vector<std::string>& supportedJobTypes();

    virtual bool isSupportedJobType(const std::string& type);

 private:
    void runCategory(const std::string& type, const std::string& url);

    std::vector<JobDescription> jobs_;  // of the current category
};

}  // namespace zav
