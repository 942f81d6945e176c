// Records what a pass does, from its log lines, its observer, its sets and its downloads. From construction to
// destruction all log lines of the process go to the recorder, and it is the process's observer.
//
// Threads: the calls come from pass threads, one at a time; take the result once the pass has ended.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Core/JobHandlers/PassObserver.h"
#include "common/ThreadSafety.h"
#include "explain/Explain.h"
#include "propertyprotocol/Json.h"

namespace explain {

class Recorder final : public zav::PassObserver {
 public:
    using Masked = std::function<std::string(const std::string& key, const std::string& value)>;

    /// `masked` is a key's value without secrets; `readable` is applied to every text of the log.
    Recorder(Masked masked, std::function<std::string(std::string)> readable);
    ~Recorder() override;

    void fileRequested(const std::string& url, const std::string& place, const std::string& status);
    void written(const propertyprotocol::Change& change, const std::string& before);

    void fileRefused(const std::string& path, const std::string& reason) override;
    void jobDropped(const zav::JobDescription& job, const std::string& reason) override;
    void jobStarted(const zav::JobDescription& job, const std::string& handler) override;
    void jobEnded(const zav::JobDescription& job, std::optional<int> result) override;
    void fileChosen(const zav::JobDescription& job, const std::string& url, const std::string& version) override;
    void settingRefused(const std::string& name, const std::string& value, const std::string& reason) override;
    void firmwareNotWanted() override;
    void firmwareDecided(const zav::FirmwareDecision& decision) override;

    /// Adds an error line as the daemon's dispatcher logs it for a pass that cannot start.
    void passNotStarted(const std::string& reason);

    /// Whether a firmware version was compared.
    bool hasFirmwareDecision() const;
    void moveInto(Explanation& explanation);

 private:
    void add(Event::Kind kind, const std::string& subject, const std::string& before, const std::string& value,
             const std::string& reason) REQUIRES(mutex_);
    void replaceLastLog() REQUIRES(mutex_);
    void logged(const dbg::LogLine& line);
    std::string shown(const std::string& key, const std::string& value) REQUIRES(mutex_);

    const Masked masked_;
    const std::function<std::string(std::string)> readable_;

    mutable common::Mutex mutex_;
    std::vector<Event> events_ GUARDED_BY(mutex_);
    std::vector<dbg::LogLine> log_ GUARDED_BY(mutex_);
    unsigned depth_ GUARDED_BY(mutex_) = 0;
    std::map<std::string, std::string> secretTexts_ GUARDED_BY(mutex_);  // as log lines quote them, and without secrets
    bool firmwareDecided_ GUARDED_BY(mutex_) = false;
};

}  // namespace explain
