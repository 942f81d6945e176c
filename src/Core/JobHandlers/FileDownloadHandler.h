// Downloads the newest of the provisioning files that a job lists, and runs that file's jobs.
#pragma once

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class FileDownloadHandler : public JobHandler {
 public:
    /// Takes the arguments of JobHandler.
    template <typename... Shared>
    explicit FileDownloadHandler(const JobDescription& job, Shared&&... shared)
        : JobHandler(job, std::forward<Shared>(shared)...) {
        handlerName_ = "FileDownloadHandler";
    }

    /// Returns the result of the last job that ran, jobFail if none ran.
    int run() override;
};

}  // namespace zav
