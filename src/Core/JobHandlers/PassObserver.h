// Hears what a pass decides, in the order in which it does. The daemon installs none; a tool that explains a pass does.
// An observer must not throw and must not change anything.
//
// Threads: called on pass threads, of which only one runs at a time; the others wait for it.
#pragma once

#include <optional>
#include <string>

#include "Core/JobHandlers/JobDescription.h"
#include "version/FirmwareVersion.h"

namespace zav {

/// What decided whether offered firmware is installed.
struct FirmwareDecision {
    std::string running;
    std::string offered;
    version::Comparison outcome;
    bool automatic;  // "FirmwareManagment.AutomaticCheckForUpdates"
    bool requested;  // "State.FirmwareUpdate.TriggerAuto"
    bool forced;     // the job has a FORCE_ACCEPT flag
    bool installs;
};

class PassObserver {
 public:
    PassObserver() = default;
    virtual ~PassObserver() = default;
    PassObserver(const PassObserver&) = delete;
    PassObserver& operator=(const PassObserver&) = delete;

    /// A downloaded provisioning file is not for this phone.
    virtual void fileRefused(const std::string& /*path*/, const std::string& /*reason*/) {}

    /// The job will not run.
    virtual void jobDropped(const JobDescription& /*job*/, const std::string& /*reason*/) {}
    virtual void jobStarted(const JobDescription& /*job*/, const std::string& /*handler*/) {}
    /// `result` is a JobResult; none if an exception ends the job and the pass.
    virtual void jobEnded(const JobDescription& /*job*/, std::optional<int> /*result*/) {}

    /// The file of several published ones; `version` is empty if it has none. The URL is empty if no file has a valid
    /// version.
    virtual void fileChosen(const JobDescription& /*job*/, const std::string& /*url*/, const std::string& /*version*/) {
    }

    virtual void settingRefused(const std::string& /*name*/, const std::string& /*value*/,
                                const std::string& /*reason*/) {}

    /// Nothing asks for firmware, so the job does nothing.
    virtual void firmwareNotWanted() {}
    virtual void firmwareDecided(const FirmwareDecision& /*decision*/) {}

    /// The observer of the process: the one installed last, or one that ignores everything.
    static PassObserver& current() { return *installed(); }
    /// Null removes the observer, which must outlive its passes. Call it while no pass runs.
    static void install(PassObserver* observer) { installed() = observer == nullptr ? &nobody() : observer; }

 private:
    static PassObserver& nobody() {
        static PassObserver observer;
        return observer;
    }
    static PassObserver*& installed() {
        static PassObserver* observer = &nobody();
        return observer;
    }
};

/// Runs the handler of a job, and tells the observer of its start and end.
template <typename Handler>
int runObserved(const JobDescription& job, Handler& handler) {
    PassObserver::current().jobStarted(job, handler.getName());
    try {
        const int result = handler.run();
        PassObserver::current().jobEnded(job, result);
        return result;
    } catch (...) {
        PassObserver::current().jobEnded(job, std::nullopt);
        throw;
    }
}

}  // namespace zav
