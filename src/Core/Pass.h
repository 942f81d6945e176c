// The provisioning pass that runs on a thread: what it may still use up together with all that is nested in it
// (included files, redirects), how deep it is in handlers, and whether the process is shutting down.
//
// The worker makes one on the pass thread for the length of the pass. What a nested pass uses up counts for the
// outermost pass, whose limits it shares; the two run on threads of their own, but never at the same time, because the
// outer one waits for the inner one. No locks.
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>

#include "common/StopSignal.h"

namespace zav {

/// A pass goes no further because the process is shutting down.
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

    /// What an outermost pass and everything nested in it have used up.
    struct Usage {
        std::size_t items = 0;      // read from provisioning files
        unsigned files = 0;         // of any kind, downloaded beside the initial ones
        unsigned nestedPasses = 0;  // started by redirects
        bool decryptionReported = false;
    };

    /// The pass of the calling thread until it is destroyed. `depth` is 1 for an outermost pass.
    Pass(std::shared_ptr<Usage> usage, unsigned depth, std::shared_ptr<common::StopSignal> stop);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    /// Null where no pass runs on the calling thread.
    static Pass* ofThisThread();
    /// Throws std::logic_error where no pass runs on the calling thread.
    static Pass& current();

    const std::shared_ptr<Usage>& usage() const { return usage_; }
    const std::shared_ptr<common::StopSignal>& stop() const { return stop_; }
    unsigned depth() const { return depth_; }

    std::size_t itemsLeft() const { return maximumItems - usage_->items; }
    /// `count` must not be greater than itemsLeft.
    void useItems(std::size_t count) { usage_->items += count; }
    /// False when the pass has downloaded as many files as it may.
    bool useFile();

    /// Whether work that takes long must end now.
    bool isOverdue() const { return stop_->isOverdue(); }
    /// Throws ShuttingDownException if it must.
    void throwIfOverdue() const;

    /// Counts a handler that runs inside another one.
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
    const std::shared_ptr<Usage> usage_;
    const unsigned depth_;
    const std::shared_ptr<common::StopSignal> stop_;
    Pass* const outer_;          // of the same thread, as a rule none
    unsigned handlerDepth_ = 1;  // the handler that the pass itself started is the first
};

}  // namespace zav
