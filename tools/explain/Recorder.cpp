#include "explain/Recorder.h"

#include <string_view>
#include <utility>

#include "Core/Constants.h"
#include "Core/ProvisioningStatusReporter.h"
#include "common/Quote.h"

namespace explain {

namespace {

using Kind = Event::Kind;

// What the settings job shows for a name or value that is not there, and the exception about it.
constexpr char unset[] = "???";
constexpr std::string_view noSuchAttribute = "map::at";

std::string nameOf(const zav::JobDescription& job) { return job.name + "/" + job.itemName; }

std::string wordOf(std::optional<int> result) {
    if (!result) return "ended by an exception";
    if (result == zav::jobSuccess) return zav::constants.successWord;
    return result == zav::jobPartSuccess ? zav::constants.partSuccessWord : zav::constants.failWord;
}

const char* wordOf(version::Comparison outcome) {
    switch (outcome) {
        case version::Comparison::newer:
            return "newer";
        case version::Comparison::older:
            return "older";
        case version::Comparison::equal:
            return "equal";
        case version::Comparison::malformed:
            return "malformed";
        case version::Comparison::noUpgradePath:
            break;
    }
    return "no upgrade path";
}

const char* modeOf(const zav::FirmwareDecision& decision) {
    if (decision.forced) return decision.requested ? "forced and requested" : "forced";
    return decision.requested ? "requested" : "automatic";
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

}  // namespace

Recorder::Recorder(Masked masked, std::function<std::string(std::string)> readable)
    : masked_(std::move(masked)), readable_(std::move(readable)) {
    dbg::Debug::setDebugLevelMask("7");
    dbg::Debug::redirect([this](const dbg::LogLine& line) { logged(line); });
    install(this);
}

Recorder::~Recorder() {
    install(nullptr);
    dbg::Debug::redirect({});
}

void Recorder::add(Kind kind, const std::string& subject, const std::string& before, const std::string& value,
                   const std::string& reason) {
    events_.push_back({kind, depth_, subject, before, value, reason});
}

void Recorder::logged(const dbg::LogLine& line) {
    if (line.source.rfind("services/", 0) == 0) return;  // the property service has a log of its own
    const common::LockGuard lock(mutex_);
    log_.push_back(line);
    log_.back().text = readable_(line.text);
    if (line.level == dbg::Debug::levelInfo) return;
    add(Kind::log, line.level == dbg::Debug::levelError ? "error" : "warning", "", log_.back().text, line.source);
}

std::string Recorder::shown(const std::string& key, const std::string& value) {
    std::string masked = masked_(key, value);
    if (masked != value) secretTexts_.insert_or_assign(quote(key, value, "="), quote(key, masked, "="));
    return masked;
}

void Recorder::fileRequested(const std::string& url, const std::string& place, const std::string& status) {
    const common::LockGuard lock(mutex_);
    add(Kind::file, url, "", place, status);
}

void Recorder::written(const propertyprotocol::Change& change, const std::string& before) {
    const common::LockGuard lock(mutex_);
    const std::string old = shown(change.param, before);
    add(Kind::written, change.param, old, shown(change.param, change.value), change.source);
}

// Drops the event of the warning or error that was logged just now, because the next event says the same.
void Recorder::replaceLastLog() {
    if (events_.empty() || log_.empty() || events_.back().kind != Kind::log) return;
    if (log_.back().level != dbg::Debug::levelInfo && events_.back().value == log_.back().text) events_.pop_back();
}

void Recorder::fileRefused(const std::string& path, const std::string& reason) {
    const common::LockGuard lock(mutex_);
    replaceLastLog();
    add(Kind::dropped, path, "", "", reason);
}

void Recorder::jobDropped(const zav::JobDescription& job, const std::string& reason) {
    const common::LockGuard lock(mutex_);
    replaceLastLog();
    add(Kind::dropped, nameOf(job), "", "", reason);
}

void Recorder::jobStarted(const zav::JobDescription& job, const std::string& handler) {
    const common::LockGuard lock(mutex_);
    add(Kind::started, nameOf(job), "", handler, "");
    ++depth_;
}

void Recorder::jobEnded(const zav::JobDescription& job, std::optional<int> result) {
    const common::LockGuard lock(mutex_);
    if (depth_ > 0) --depth_;
    add(Kind::ended, nameOf(job), "", wordOf(result), "");
}

void Recorder::fileChosen(const zav::JobDescription& job, const std::string& url, const std::string& version) {
    const common::LockGuard lock(mutex_);
    std::string reason = "the newest version, " + version;
    if (url.empty()) {
        reason = "no file has a valid version";
    } else if (version.empty()) {
        reason = "it has no version, which counts as the newest";
    }
    add(Kind::chosen, nameOf(job), "", url, reason);
}

void Recorder::settingRefused(const std::string& name, const std::string& value, const std::string& reason) {
    const common::LockGuard lock(mutex_);
    replaceLastLog();
    const bool isMissing = value == unset && reason.compare(0, noSuchAttribute.size(), noSuchAttribute) == 0;
    add(Kind::refused, name, "", isMissing ? "" : shown(name, value), isMissing ? Event::missingAttribute : reason);
}

void Recorder::firmwareNotWanted() {
    const common::LockGuard lock(mutex_);
    add(Kind::firmware, "", "", "nothing",
        "the automatic check is off, no update is requested, and the job is not forced");
}

void Recorder::firmwareDecided(const zav::FirmwareDecision& decision) {
    const common::LockGuard lock(mutex_);
    firmwareDecided_ = true;
    add(Kind::firmware, decision.offered, decision.running, decision.installs ? "installs" : "refuses",
        std::string(wordOf(decision.outcome)) + ", " + modeOf(decision));
}

void Recorder::passNotStarted(const std::string& reason) {
    const common::LockGuard lock(mutex_);
    log_.push_back({dbg::Debug::levelError, "Core/Dispatcher", 0, "Handling message failed: " + reason});
    add(Kind::log, "error", "", reason, "Core/Dispatcher");
}

bool Recorder::hasFirmwareDecision() const {
    const common::LockGuard lock(mutex_);
    return firmwareDecided_;
}

void Recorder::moveInto(Explanation& explanation) {
    const common::LockGuard lock(mutex_);
    for (const auto& [secret, masked] : secretTexts_) {
        for (dbg::LogLine& line : log_) replaceAll(line.text, secret, masked);
        for (Event& event : events_) {
            if (event.kind == Kind::log) replaceAll(event.value, secret, masked);
        }
    }
    explanation.events = std::move(events_);
    explanation.log = std::move(log_);
}

}  // namespace explain
