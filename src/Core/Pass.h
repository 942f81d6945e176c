// Limits of the provisioning pass that runs on a thread: items and files that it has used together with included files
// and nested passes (redirects), nesting of handlers, and shutdown. Also the process-wide values of the latest pass.
//
// Threads: the worker creates a Pass on the pass thread for the duration of the pass. A nested pass has a thread of its
// own and shares the usage of the outermost pass without locking, because the outer thread waits for the inner one.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

#include "Core/ProgressPublisher.h"
#include "common/StopSignal.h"

namespace zav {

/// Format version of the running provisioning file; empty until the initial file is verified. Any thread.
std::string currentProvisioningVersion();
void setCurrentProvisioningVersion(const std::string& version);

/// HTTP status of the initial download, or of the latest failed download after it; 0 if there was no response.
extern std::atomic<int> lastHttpCode;

/// Ends a pass because the process is shutting down.
class ShuttingDownException : public std::runtime_error {
 public:
    ShuttingDownException() : std::runtime_error("The process is shutting down") {}
};

class Pass {
 public:
    static constexpr std::size_t maximumItems = 1000000;
    static constexpr unsigned maximumFiles = 1000;
    static constexpr unsigned maximumNestedPasses = 16;
    static constexpr unsigned maximumDepth = 4;
    static constexpr unsigned maximumHandlerDepth = 16;

    /// Counted over an outermost pass and everything nested in it.
    struct Usage {
        std::size_t items = 0;      // read from provisioning files
        unsigned files = 0;         // downloaded, except initial files
        unsigned nestedPasses = 0;  // started by redirects
        bool decryptionReported = false;
    };

    /// Becomes the calling thread's pass until destruction. `outer`, which must outlive this object, is the pass that
    /// it is nested in; null for an outermost pass. `progress` may be null.
    Pass(Pass* outer, std::shared_ptr<common::StopSignal> stop, ProgressPublisher* progress = nullptr);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    /// Null if no pass runs on the calling thread.
    static Pass* ofThisThread();
    /// Throws std::logic_error if no pass runs on the calling thread.
    static Pass& current();

    Usage& usage() { return outer_ == nullptr ? usage_ : outer_->usage(); }
    const std::shared_ptr<common::StopSignal>& stop() const { return stop_; }
    /// Null if nobody is to be told.
    ProgressPublisher* progress() const { return progress_; }

    /// Counts a pass that is about to be nested in this one. False if the limits do not allow it, which ends loops of
    /// redirects.
    bool countNestedPass();

    /// Whether long work must end now: shutdown has begun and its grace period is over.
    bool isOverdue() const { return stop_->isOverdue(); }
    /// Throws ShuttingDownException if isOverdue().
    void throwIfOverdue() const;

    /// Counts a nested handler while it runs.
    class HandlerScope {
     public:
        explicit HandlerScope(Pass& pass) : pass_(pass) { ++pass_.handlerDepth_; }
        ~HandlerScope() { --pass_.handlerDepth_; }
        HandlerScope(const HandlerScope&) = delete;
        HandlerScope& operator=(const HandlerScope&) = delete;

     private:
        Pass& pass_;
    };
    bool mayNestHandler() const { return handlerDepth_ < maximumHandlerDepth; }

 private:
    Pass* const outer_;
    const unsigned depth_;  // 1 for an outermost pass
    const std::shared_ptr<common::StopSignal> stop_;
    ProgressPublisher* const progress_;
    Usage usage_;                // of an outermost pass
    unsigned handlerDepth_ = 1;  // the handler started by the worker is the first
};

}  // namespace zav
