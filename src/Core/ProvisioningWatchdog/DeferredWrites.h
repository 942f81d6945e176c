// Property writes at the end of a pass that must survive an outage of the bus or the property service: without them a
// broker restart would leave the screen locked. Retries them in order, one each half second, until they succeed or are
// cancelled as stale: a new request cancels the last result, a pass that starts cancels everything.
//
// Threads: any. Retries run on a thread of their own, started when first needed.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <thread>

#include "common/ThreadSafety.h"

namespace zav {

class DeferredWrites {
 public:
    using Write = std::function<void()>;
    enum class Kind { unlock, result };

    /// Tries the pending writes once more, so that a shutdown during a pass still unlocks the screen.
    ~DeferredWrites();

    /// Executes the write, or keeps it for later if the service is away, if there is no memory for it, or if earlier
    /// writes are pending. Blocks for the property calls of the write. Throws what a refused write throws (a retry
    /// would be refused too), and std::system_error if the retry thread cannot be started; the write is then still
    /// pending.
    void write(Kind kind, const Write& write);

    /// Drops all pending writes, or those of one kind. Returns when no retry is in progress, which may take
    /// the property calls of one write.
    void cancel(std::optional<Kind> kind = std::nullopt);

 private:
    struct Pending {
        std::uint64_t number = 0;
        Kind kind = Kind::result;
        Write write;
    };

    void keep(Kind kind, const Write& write);
    void retry();
    bool tryFirst();
    static bool execute(const Write& write);

    common::Mutex attempt_;  // held during each retry so that cancel can wait for it; locked before mutex_
    common::Mutex mutex_;
    common::ConditionVariable changed_;
    std::deque<Pending> pending_ GUARDED_BY(mutex_);
    std::uint64_t nextNumber_ GUARDED_BY(mutex_) = 0;
    bool ending_ GUARDED_BY(mutex_) = false;
    std::thread thread_ GUARDED_BY(mutex_);  // until ending_ is set
};

}  // namespace zav
