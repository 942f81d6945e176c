// Publishes how far a pass is, for people who watch it: {"param": JOB, "value": "DONE/TOTAL UNIT"} on
// "prov-client-progress", once at a job's start and once at its end, in between at most twice a second. A message that
// cannot be sent is dropped without a log line; nothing waits for one or depends on one.
//
// Threads: the pass thread only, without a lock. A nested pass shares the publisher of the outermost one, whose thread
// waits for it. Publishing never blocks.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ipc/IIPCClient.h"

namespace zav {

class ProgressPublisher {
 public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    static constexpr std::chrono::milliseconds interval{500};

    explicit ProgressPublisher(std::shared_ptr<ipc::IIPCClient> bus, Now now = &Clock::now);
    ProgressPublisher(const ProgressPublisher&) = delete;
    ProgressPublisher& operator=(const ProgressPublisher&) = delete;

    /// A job from its start to its end; jobs nest. `publisher` may be null. `name` must need no escaping in JSON; it
    /// and `unit` ("bytes" or "items") must outlive the object.
    class Job {
     public:
        Job(ProgressPublisher* publisher, const std::string& name, const char* unit, std::uint64_t total);
        ~Job();
        Job(const Job&) = delete;
        Job& operator=(const Job&) = delete;

     private:
        friend class ProgressPublisher;
        ProgressPublisher* const publisher_;
        Job* const outer_;
        const std::string& name_;
        const char* const unit_;
        std::uint64_t done_ = 0;
        std::uint64_t total_;
    };

    /// The progress of the innermost job, in its unit; `total` is 0 if unknown. Ignored between jobs.
    void report(std::uint64_t done, std::uint64_t total);

 private:
    void publish(const Job& job) noexcept;

    const std::shared_ptr<ipc::IIPCClient> bus_;
    const Now now_;
    Job* job_ = nullptr;            // the innermost one
    Clock::time_point nextReport_;  // of what lies between a job's start and its end
};

}  // namespace zav
