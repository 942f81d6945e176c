#include "Core/JobHandlers/FileDownloadHandler.h"

#include "Core/Constants.h"
#include "Core/Utils.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"

namespace zav {

int FileDownloadHandler::run() {
    dbg::Debug::info() << "Running FileDownloadHandlerJob on: " << job_->name << std::endl;
    const std::string url = findNewestUrl(*job_);
    if (url.empty()) return jobFail;

    const UrlInfo urlInfo = makeJobUrlInfo(url, properties_->get(constants.provisioningServerKey));
    const std::string source = urlInfo.text();
    const std::string destination = formatUrl(provisioningPath(job_->name, urlInfo.localName()), properties_);
    dbg::Debug::info() << "Found job with URL: " << source << std::endl;
    std::vector<JobDescription> jobs;
    if (!downloadAndParse(source, destination, jobs)) {
        reportFailedFile(job_->name);
        return jobFail;
    }
    int result = jobFail;
    runEach(jobs, [&](const JobDescription& job) { result = startJob(job); });
    return result;
}

}  // namespace zav
