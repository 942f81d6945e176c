#include "Core/ProvisioningStatusReporter.h"

#include <map>
#include <set>
#include <sstream>

#include <json/writer.h>

#include "Core/Constants.h"
#include "debug/Debug.h"

namespace zav {

namespace {

constexpr const char* overallStatus = "provisioningStatus";
constexpr const char* jobStatus = "jobStatus";

// Without "FileDownloadHandler" and "file": those jobs do not count in the overall status.
const std::map<std::string, std::string> jobCategoryByName{
    {"NVMJobHandler", "nvm"},
    {"nvm", "nvm"},
    {"CustomScenarioJobHandler", "custom"},
    {"custom", "custom"},
    {"FirmwareJobHandler", "firmware"},
    {"firmware", "firmware"},
};

std::string wordOf(int result) {
    switch (result) {
        case jobFail:
            return constants.failWord;
        case jobPartSuccess:
            return constants.partSuccessWord;
        case jobSuccess:
            return constants.successWord;
        default:
            return {};
    }
}

std::string overallStatusOf(const std::set<std::string>& words) {
    if (words == std::set<std::string>{constants.successWord}) return constants.successWord;
    if (words == std::set<std::string>{constants.failWord}) return constants.failWord;
    return constants.partSuccessWord;  // mixed results, or none
}

// Does not insert a missing member, unlike operator[] of a mutable object.
const Json::Value& member(const Json::Value& object, const char* name) {
    return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

// Adds the overall status, unless it is set, and removes categories without a job status.
void addOverallStatus(Json::Value& document) {
    const Json::Value& readable = document;
    if (!member(readable, overallStatus).isNull()) return;
    std::set<std::string> words;
    for (const char* category : {"firmware", "nvm", "custom"}) {
        const Json::Value& status = member(member(readable, category), jobStatus);
        if (!status.isNull()) {
            words.insert(status.asString());
        } else if (readable.isObject()) {
            document.removeMember(category);
        }
    }
    document[overallStatus] = overallStatusOf(words);
}

}  // namespace

void ProvisioningStatusReporter::setJobStatus(const std::string& handlerName, int result) {
    setJobField(handlerName, jobStatus, wordOf(result));
}

void ProvisioningStatusReporter::setJobField(const std::string& handlerName, const std::string& key,
                                             const Json::Value& value) {
    const auto category = jobCategoryByName.find(handlerName);
    if (category == jobCategoryByName.end()) return;
    const common::LockGuard lock(mutex_);
    document_[category->second][key] = value;
}

void ProvisioningStatusReporter::reportFinished() {
    Json::Value document;
    {
        const common::LockGuard lock(mutex_);
        document = document_;
    }
    addOverallStatus(document);
    std::ostringstream text;
    text << document;
    // Logged before the status is published, so that the end of a nested pass precedes its consequences in the log;
    // and without the lock, so that a slow log does not block readers.
    dbg::Debug::info() << "Finished provisioning, status is" << dbg::verbatim(text.str()) << std::endl;
    {
        const common::LockGuard lock(mutex_);
        document_ = document;
    }
    finished_.notifyAll();
}

void ProvisioningStatusReporter::setProvisioningStatus(const std::string& status) {
    const common::LockGuard lock(mutex_);
    document_[overallStatus] = status;
    finished_.notifyAll();
}

std::string ProvisioningStatusReporter::getProvisioningStatus() {
    const common::LockGuard lock(mutex_);
    return member(document_, overallStatus).asString();
}

std::string ProvisioningStatusReporter::waitForProvisioningStatus(std::chrono::milliseconds timeout) {
    const common::LockGuard lock(mutex_);
    finished_.waitFor(mutex_, timeout,
                      [this]() REQUIRES(mutex_) { return !member(document_, overallStatus).isNull(); });
    return member(document_, overallStatus).asString();
}

void ProvisioningStatusReporter::resetStatus() {
    const common::LockGuard lock(mutex_);
    document_.clear();
}

}  // namespace zav
