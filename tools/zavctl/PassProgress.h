// Shows how far a pass is, from the messages that the daemon publishes: a bar on a terminal, a line now and then
// elsewhere, events with --json. Without messages it shows the time that has passed.
//
// Threads: messages arrive on a delivery thread; one other thread shows them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Environment.h"
#include "ProgressBar.h"
#include "common/ThreadSafety.h"
#include "ipc/IIPCCallback.h"

namespace zavctl {

inline constexpr char progressTopic[] = "prov-client-progress";

/// How far a job is. `total` is 0 if unknown; `unit` is "bytes" or "items".
struct JobProgress {
    std::string job;
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    std::string unit;
};

/// Nothing if the content is not a progress message.
std::optional<JobProgress> parseProgress(const std::string& content);

/// Keeps the messages that have not been taken, the oldest go first.
class ProgressFeed final : public ipc::IIPCCallback {
 public:
    static constexpr std::size_t maximumKept = 1000;

    void connectionLost(const std::string& /*cause*/) override {}
    void messageArrived(const std::string& topic, const std::string& content) override;
    void deliveryComplete(const std::string& /*topic*/) override {}

    std::vector<JobProgress> take();

 private:
    common::Mutex mutex_;
    std::vector<JobProgress> arrived_ GUARDED_BY(mutex_);
};

class PassProgress {
 public:
    PassProgress(const Environment& environment, bool json);

    /// To be called now and then: `phase` is what zavctl waits for, `elapsed` the time since the request.
    void show(const std::string& phase, const std::vector<JobProgress>& news, std::chrono::milliseconds elapsed);

    /// Removes what stands on the terminal. Call it before anything else is printed.
    void clear();

 private:
    void showOnTerminal(const std::string& phase, std::chrono::milliseconds elapsed);
    void showAsLine(const std::string& phase, std::chrono::milliseconds elapsed);

    const Environment& environment_;
    const bool json_;
    std::optional<JobProgress> job_;  // the latest message
    std::optional<ProgressBar> bar_;  // of that job
    bool visible_ = false;            // a line without a bar
    std::chrono::milliseconds nextLine_;
    std::chrono::milliseconds drawnAt_{0};
};

}  // namespace zavctl
