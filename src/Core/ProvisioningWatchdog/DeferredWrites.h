// Property writes that must not get lost when the bus or the property service is away: they are tried again, in their
// order, until they succeed or something newer makes them stale: a request that is heard, the last pass's result; a
// pass that starts, everything. A screen must not stay locked by a broker's restart. One write is retried each half
// second, so that a request that comes with the service's return is heard before the next.
//
// Threads: any; the retries run on a thread of their own, which is started when it is first needed.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zav {

class DeferredWrites {
 public:
    using Write = std::function<void()>;
    enum class Kind { unlock, result };

    DeferredWrites() = default;

    /// Tries what waits once more, and ends: a pass overtaken by the process's end still unlocks the screen.
    ~DeferredWrites();
    DeferredWrites(const DeferredWrites&) = delete;
    DeferredWrites& operator=(const DeferredWrites&) = delete;

    /// Carries the write out, or keeps it for later when the service is away or earlier writes still wait. Blocks for
    /// the property calls of the write. Throws what the write throws when it is refused, for it would be refused again,
    /// and std::system_error when the retry thread is needed and cannot be started; the write waits all the same.
    void write(Kind kind, const Write& write);

    /// Forget what waits, or what waits of one kind. When they return no retry is under way; that may take the property
    /// calls of one write.
    void cancel();
    void cancel(Kind kind);

 private:
    struct Owed {
        std::uint64_t number = 0;
        Kind kind = Kind::result;
        Write write;
    };

    void keep(Kind kind, const Write& write);
    void retry();
    bool tryFirst();
    void waitForAttempt();
    static bool carryOut(const Write& write);

    std::mutex attempt_;  // held during each attempt, so that cancel can wait for it; taken before mutex_
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Owed> waiting_;      // guarded by mutex_
    std::uint64_t nextNumber_ = 0;  // guarded by mutex_
    bool ending_ = false;           // guarded by mutex_
    std::thread thread_;            // guarded by mutex_ until ending_
};

}  // namespace zav
