#include "Core/JobHandlers/MasterJobHandler.h"

#include <algorithm>

#include "Core/Constants.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "debug/Debug.h"
#include "http/FormatUrl.h"

namespace zav {

bool MasterJobHandler::isSupportedJobType(const std::string& type) {
    const std::vector<std::string>& types = supportedJobTypes();
    return std::find(types.begin(), types.end(), type) != types.end();
}

const std::vector<std::string>& MasterJobHandler::supportedJobTypes() {
    static const std::vector<std::string> types{"firmware", "nvm", "custom"};
    return types;
}

int MasterJobHandler::run() {
    for (const Attributes& item : job_->items) {
        Pass::current().throwIfOverdue();
        const std::string& type = item.at("type");
        if (!isSupportedJobType(type)) continue;
        dbg::Debug::info() << "Job Type: " << type << std::endl;
        runCategory(type, item.at("url"));
    }
    return jobSuccess;
}

void MasterJobHandler::runCategory(const std::string& type, const std::string& url) {
    const UrlInfo urlInfo = makeJobUrlInfo(url, properties_->get(constants.provisioningServerKey));
    const std::string source = urlInfo.text();
    const std::string destination = formatUrl(provisioningPath(type, urlInfo.localName()), properties_);
    dbg::Debug::info() << "Found " << type << " job type with URL: " << source << std::endl;
    jobs_.clear();
    if (!downloadAndParse(source, destination, jobs_)) {
        reportFailedFile(type);
        statusReporter_.setJobStatus(type, jobFail);
        return;
    }
    removeJobsNotAllowed(jobs_);
    runEach(jobs_, [&](const JobDescription& job) { statusReporter_.setJobStatus(type, startJob(job)); });
}

}  // namespace zav
