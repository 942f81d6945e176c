#include "Core/JobHandlers/JobHandler.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Core/Constants.h"
#include "Core/JobHandlers/JobHandlerFactory.h"
#include "Core/JobHandlers/PassObserver.h"
#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/JobHandlers/RegularExpression.h"
#include "Core/Pass.h"
#include "common/Quote.h"
#include "debug/Debug.h"
#include "http/CurlTypes.h"
#include "http/FileDownloader.h"

namespace zav {

namespace {

constexpr const char* oldestVersion = "1000-01-01_01:01:01";
constexpr const char* versionPattern =
    R"(^(20[0-9][0-9]-(0[1-9]|1[012])-(0[1-9]|[12][0-9]|3[01])_([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]|V\d\d\d.\d\d\d.\d\d\d)$)";

const AllowedJobs jobsOfVersion10{{"provisioning", "category"}, {"nvm", "file"},       {"custom", "file"},
                                  {"firmware", "file"},         {"settings", "param"}, {"scenario", "step"}};
const AllowedJobs jobsOfVersion11{{"nvm", "param"}, {"custom", "step"}, {"firmware", "file"}};

bool contains(const AllowedJobs& jobs, const JobDescription& job) {
    return std::find(jobs.begin(), jobs.end(), std::make_pair(job.name, job.itemName)) != jobs.end();
}

bool isAllowed(const JobDescription& job) {
    Pass::current().throwIfOverdue();
    const std::string version = currentProvisioningVersion();
    if (contains(allowedJobs(version), job)) return true;
    dbg::Debug::warning() << "Job: " << job.name << " " << job.itemName
                          << " is not valid for provisioning version: " << version << " and it will not be started"
                          << std::endl;
    PassObserver::current().jobDropped(job, "not a job of format " + quote(version));
    return false;
}

}  // namespace

JobHandler::JobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                       const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                       ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter)
    : job_(&job),
      properties_(properties),
      curl_(std::move(curl)),
      security_(security),
      reader_(reader),
      progressReporter_(progressReporter),
      statusReporter_(statusReporter) {}

const std::string& JobHandler::getName() { return handlerName_; }

std::string JobHandler::findNewestUrl(const JobDescription& job) { return newestUrl(job); }

std::string newestUrl(const JobDescription& job) {
    std::string newest = oldestVersion;
    bool unversioned = false;
    std::string url;
    for (const Attributes& item : job.items) {
        Pass::current().throwIfOverdue();
        const auto version = item.find("version");
        if (version == item.end()) {
            url = item.at("url");
            unversioned = true;
            dbg::Debug::info() << "Found url without version tag, assuming newest version is: " << url << std::endl;
            break;
        }
        if (isValidVersion(version->second) && version->second > newest) {
            newest = version->second;
            url = item.at("url");
        }
    }
    dbg::Debug::info() << "Newest:" << url << std::endl;
    PassObserver::current().fileChosen(job, url, unversioned || url.empty() ? "" : newest);
    return url;
}

int JobHandler::startJob(const JobDescription& job) {
    Pass& pass = Pass::current();
    pass.throwIfOverdue();
    if (!pass.mayNestHandler()) {
        dbg::Debug::error() << "Job: " << job.name << " is nested more than " << Pass::maximumHandlerDepth
                            << " handlers deep and will not be started" << std::endl;
        PassObserver::current().jobDropped(job, "nested too deeply");
        return jobFail;
    }
    const Pass::HandlerScope scope(pass);
    const auto handler =
        JobHandlerFactory::create(job, curl_, security_, properties_, reader_, progressReporter_, statusReporter_);
    if (!handler) return jobFail;
    const ProgressPublisher::Job progress = progressOf(job);
    dbg::Debug::info() << "+++++ Starting " << handler->getName() << std::endl;
    const int result = runObserved(job, *handler);
    dbg::Debug::info() << "-----Finishing " << handler->getName() << std::endl;
    return result;
}

bool JobHandler::countDownload(const std::string& url) {
    Pass& pass = Pass::current();
    pass.throwIfOverdue();
    if (pass.usage().files < Pass::maximumFiles) {
        ++pass.usage().files;
        return true;
    }
    dbg::Debug::error() << "File " << url << " follows " << Pass::maximumFiles
                        << " others in this pass and will not be downloaded" << std::endl;
    return false;
}

bool JobHandler::downloadAndParse(const std::string& url, const std::string& destination,
                                  std::vector<JobDescription>& jobs) {
    if (!countDownload(url)) return false;
    FileDownloader downloader(curl_, security_, properties_);
    const int code = downloader.downloadFile(url, destination);
    const long httpCode = curl_->getHttpCode();
    if (code != 0 || httpCode != httpOk) {
        lastHttpCode = static_cast<int>(httpCode);
        dbg::Debug::warning() << "Error downloading file: " << url << std::endl;
        dbg::Debug::error() << "Curl Error: " << CurlTypes::getCurlErrorDescription(code)
                            << " HTTP Error: " << CurlTypes::getHTTPCodeDescription(httpCode) << std::endl;
        return false;
    }
    ProvisioningFileParser parser(destination, reader_, properties_);
    const bool verified = parser.loadAndVerify();
    if (verified) {
        parser.collectJobs(jobs);
    } else {
        dbg::Debug::warning() << "XML verification failed for: " << destination << std::endl;
    }
    reader_.release();  // the document is large, and the jobs do not need it
    return verified;
}

bool JobHandler::download(const std::string& kind, const std::string& source, const std::string& destination,
                          const char* file, int line) {
    FileDownloader downloader(curl_, security_, properties_);
    const int code = downloader.downloadFile(source, destination);
    const long httpCode = curl_->getHttpCode();
    if (code == 0 && httpCode == httpOk) return true;
    lastHttpCode = static_cast<int>(httpCode);
    dbg::Debug::error(file, line) << "Error downloading " << kind << " file " << quote(source) << " to "
                                  << quote(destination) << " status: " << CurlTypes::getCurlErrorDescription(code)
                                  << " HTTP status: " << CurlTypes::getHTTPCodeDescription(httpCode) << std::endl;
    return false;
}

std::string JobHandler::lastHttpStatus() const { return CurlTypes::getHTTPCodeDescription(curl_->getHttpCode()); }

void JobHandler::reportFailedFile(const std::string& handlerName) {
    lastHttpCode = static_cast<int>(curl_->getHttpCode());
    statusReporter_.setJobField(handlerName, "xmlFileStatus", constants.failWord);
    statusReporter_.setJobField(handlerName, "extraInfo", "HTTP: " + lastHttpStatus());
}

bool hasItems(const JobDescription& job, const char* file, int line) {
    if (!job.items.empty()) return true;
    dbg::Debug::info(file, line) << "Node: " << job.name << " has no child nodes, skipping" << std::endl;
    return false;
}

ProgressPublisher::Job progressOf(const JobDescription& job) {
    const bool settings = JobHandlerFactory::kindOf(job.name, job.itemName) == JobKind::settings;
    return {Pass::current().progress(), job.name, settings ? "items" : "bytes", settings ? job.items.size() : 0};
}

void removeJobsNotAllowed(std::vector<JobDescription>& jobs) {
    jobs.erase(std::remove_if(jobs.begin(), jobs.end(), [](const JobDescription& job) { return !isAllowed(job); }),
               jobs.end());
}

const AllowedJobs& allowedJobs(const std::string& version) {
    static const AllowedJobs none;
    if (version == "1.0") return jobsOfVersion10;
    return version == "1.1" ? jobsOfVersion11 : none;
}

bool isValidVersion(const std::string& version) {
    const std::optional<bool> matches = matchesWhole(versionPattern, version);
    if (!matches) {
        dbg::Debug::error() << "Time Version Expression did not compile" << std::endl;
        return false;
    }
    if (!*matches) {
        dbg::Debug::warning() << "Version " << quote(version) << " doesn't match YYYY-MM-DD_HH:MM:SS format."
                              << std::endl;
    }
    return *matches;
}

}  // namespace zav
