// The requests of a bus client that wait for their answers, and what decides how long they may: the connection, the
// presence of the service that was asked, and the limit of a shutdown. It knows no bus: its owner sends, and tells it
// what happened.
//
// Threads: callers block in `ask` and `waitForService`; all else returns at once, on any thread, mostly the network
// thread. One mutex, which is not held while a request is sent.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "common/ThreadSafety.h"

namespace ipc {

class Requests {
 public:
    using Clock = std::chrono::steady_clock;
    /// Sends the request with this correlation data. Returns false while there is no connection.
    using Send = std::function<bool(std::string correlationData)>;

    Requests();
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    /// Returns whether the service was not watched before.
    bool watch(const std::string& statusTopic) EXCLUDES(mutex_);

    /// Blocks until the answer is there; sends once the service is online, again only if `send` returned false. Throws
    /// as IIPCClient::request does.
    std::string ask(const std::string& statusTopic, std::chrono::milliseconds timeout, const Send& send)
        EXCLUDES(mutex_);
    /// See IIPCClient::waitForService.
    bool waitForService(const std::string& statusTopic, std::chrono::milliseconds patience) EXCLUDES(mutex_);
    /// See IIPCClient::limitRequests.
    void limit(std::chrono::milliseconds limit) EXCLUDES(mutex_);
    /// Fails all that wait; returns when they have left.
    void close() EXCLUDES(mutex_);

    // ---- what happened ----

    /// The first attempt to connect begins.
    void connecting() EXCLUDES(mutex_);
    /// The first attempt failed and is the last: later requests do not wait for a connection.
    void connectFailed() EXCLUDES(mutex_);
    void connected() EXCLUDES(mutex_);
    void connectionLost() EXCLUDES(mutex_);
    /// A message came; it counts if a service that is watched says "online" or "offline" there.
    void presenceArrived(std::string_view topic, std::string_view word) EXCLUDES(mutex_);
    void answerArrived(const std::string& correlationData, std::string_view answer) EXCLUDES(mutex_);

    /// How many answers have come, late ones included.
    std::uint64_t answers() const { return answers_; }

 private:
    enum class Broker { neverConnected, away, connected };
    enum class Presence { unknown, online, offline };
    enum class Step { send, wait, finish };

    /// unsent ──▶ sent ──▶ answered, or the connection or the service was lost on the way. Guarded by mutex_.
    struct Pending {
        enum class Stage { unsent, sent, answered, connectionLost, serviceLost };

        explicit Pending(const std::string& topic) : statusTopic(topic) {}
        const std::string& statusTopic;
        Stage stage = Stage::unsent;
        std::string answer;
        common::ConditionVariable changed;
    };
    struct WatchedService {
        Presence presence = Presence::unknown;
        std::optional<Clock::time_point> lastOnline;  // when it went; unset if it never was online
    };

    std::uint64_t enter(Pending& pending) EXCLUDES(mutex_);
    void leave(std::uint64_t number) EXCLUDES(mutex_);
    Step nextStep(const Pending& pending, Clock::time_point deadline, Clock::time_point& until) const REQUIRES(mutex_);
    Presence presenceOf(const std::string& statusTopic) const REQUIRES(mutex_);
    void sendOnce(Pending& pending, std::uint64_t number, Clock::time_point deadline, const Send& send)
        REQUIRES(mutex_);
    bool awaitService(const std::string& statusTopic, std::chrono::milliseconds patience) REQUIRES(mutex_);
    Clock::time_point limited(Clock::time_point deadline, Clock::time_point begun) const REQUIRES(mutex_);
    void setPresence(const std::string& statusTopic, WatchedService& service, Presence presence) REQUIRES(mutex_);
    void wakeAll() REQUIRES(mutex_);

    const std::uint64_t first_;  // numbers before it are not ours

    common::Mutex mutex_;
    common::ConditionVariable left_;             // a request or a wait for a service has left
    common::ConditionVariable presenceChanged_;  // or requests are limited, or this is closed
    bool closed_ GUARDED_BY(mutex_) = false;
    Broker broker_ GUARDED_BY(mutex_) = Broker::neverConnected;
    Clock::time_point since_ GUARDED_BY(mutex_);  // of the present connection or of its loss
    std::map<std::string, WatchedService, std::less<>> services_ GUARDED_BY(mutex_);  // by status topic
    unsigned serviceWaits_ GUARDED_BY(mutex_) = 0;
    std::optional<std::chrono::milliseconds> limit_ GUARDED_BY(mutex_);
    Clock::time_point limitedSince_ GUARDED_BY(mutex_);
    std::unordered_map<std::uint64_t, Pending*> pending_ GUARDED_BY(mutex_);
    std::uint64_t next_ GUARDED_BY(mutex_);

    std::atomic<std::uint64_t> answers_{0};
};

}  // namespace ipc
