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

// "FileDownloadHandler" and "file" are absent on purpose: those jobs do not count in the overall status.
const std::map<std::string, std::string>& jobCategoryByName() {
    static const std::map<std::string, std::string> categories{
        {"NVMJobHandler", "nvm"},
        {"nvm", "nvm"},
        {"CustomScenarioJobHandler", "custom"},
        {"custom", "custom"},
        {"FirmwareJobHandler", "firmware"},
        {"firmware", "firmware"},
    };
    return categories;
}

std::string wordOf(int result) {
    switch (result) {
        case jobFail:
            return constants::failWord;
        case jobPartSuccess:
            return constants::partSuccessWord;
        case jobSuccess:
            return constants::successWord;
        default:
            return {};
    }
}

std::string overallOf(const std::set<std::string>& words) {
    if (words == std::set<std::string>{constants::successWord}) return constants::successWord;
    if (words == std::set<std::string>{constants::failWord}) return constants::failWord;
    return constants::partSuccessWord;  // a mixture, or nothing at all
}

// Looks without inserting.
const Json::Value& member(const Json::Value& object, const char* name) {
    return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

// Completes the document of a pass that has ended.
void formStatus(Json::Value& document) {
    const Json::Value& readable = document;
    if (!member(readable, overallStatus).isNull()) return;
    std::set<std::string> words;
    for (const char* category : {"firmware", "nvm", "custom"}) {
        const Json::Value& status = member(member(readable, category), jobStatus);
        if (!status.isNull()) {
            words.insert(status.asString());
        } else if (readable.isObject()) {
            document.removeMember(category);  // it holds details, but no job of it reported
        }
    }
    document[overallStatus] = overallOf(words);
}

}  // namespace

void ProvisioningStatusReporter::setJobStatus(const std::string& handlerName, int result) {
    setJobField(handlerName, jobStatus, wordOf(result));
}

void ProvisioningStatusReporter::setJobField(const std::string& handlerName, const std::string& key,
                                             const Json::Value& value) {
    const auto category = jobCategoryByName().find(handlerName);
    if (category == jobCategoryByName().end()) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    document_[category->second][key] = value;
}

void ProvisioningStatusReporter::reportFinished() {
    Json::Value finished;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        finished = document_;
    }
    formStatus(finished);
    std::ostringstream text;
    text << finished;
    // Before anybody reads the status, so that the end of a nested pass is in the log before its consequences; without
    // the lock, so that a slow log does not hold up readers.
    dbg::Debug::info() << "Finished provisioning, status is" << dbg::verbatim(text.str()) << std::endl;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        document_ = finished;
    }
    formed_.notify_all();
}

void ProvisioningStatusReporter::setProvisioningStatus(const std::string& status) {
    const std::lock_guard<std::mutex> lock(mutex_);
    document_[overallStatus] = status;
    formed_.notify_all();
}

std::string ProvisioningStatusReporter::getProvisioningStatus() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return member(document_, overallStatus).asString();
}

std::string ProvisioningStatusReporter::waitForProvisioningStatus(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    formed_.wait_for(lock, timeout, [this] { return !member(document_, overallStatus).isNull(); });
    return member(document_, overallStatus).asString();
}

void ProvisioningStatusReporter::resetStatus() {
    const std::lock_guard<std::mutex> lock(mutex_);
    document_.clear();
}

}  // namespace zav
