// The pending requests of a bus client, and how long each may wait: that depends on the connection, on the service's
// presence and on the shutdown limit. It does not know the bus: its owner sends and reports events.
//
// Threads: callers block in `ask`, `response`, `waitForService` and `close`; all other calls return at once, on any
// thread. One mutex, which is not held while a request is sent or its caller reads.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Awaited.h"
#include "common/ThreadSafety.h"

namespace ipc {

/// Lets the caller of a request read its own response.
class ResponseReader {
 public:
    virtual ~ResponseReader() = default;

    /// Reads on this thread while a response is awaited, until it is time, or as long as there is a connection. Returns
    /// false at once if it cannot.
    virtual bool read(std::chrono::steady_clock::time_point until, const std::function<Awaited()>& awaited) = 0;
    /// Lets `read` check `awaited` again.
    virtual void interrupt() = 0;
};

class Requests {
 public:
    using Clock = std::chrono::steady_clock;
    /// Sends the request with this correlation data. Returns false while there is no connection.
    using Send = std::function<bool(std::string correlationData)>;

    /// Without a reader callers wait for other threads to report the responses.
    explicit Requests(ResponseReader* reader = nullptr) : reader_(reader) {}
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    /// Returns whether the service was not watched before.
    bool watch(const std::string& statusTopic) EXCLUDES(mutex_);
    bool isWatched(std::string_view statusTopic) EXCLUDES(mutex_);

    class Request;
    /// Blocks until the response is there. Sends once the service is online, and again only if `send` returned false.
    /// Throws like IIPCClient::request.
    std::string ask(const std::string& statusTopic, std::chrono::milliseconds timeout, const Send& send)
        EXCLUDES(mutex_);
    /// See IIPCClient::waitForService.
    bool waitForService(const std::string& statusTopic, std::chrono::milliseconds limit) EXCLUDES(mutex_);
    /// See IIPCClient::limitRequests.
    void limit(std::chrono::milliseconds limit) EXCLUDES(mutex_);
    /// Fails all pending calls, and waits until they have returned.
    void close() EXCLUDES(mutex_);

    // ---- events ----

    /// The first attempt to connect begins.
    void connecting() EXCLUDES(mutex_);
    /// There will be no connection: fail requests instead of waiting for one.
    void connectFailed() EXCLUDES(mutex_);
    void connected() EXCLUDES(mutex_);
    void connectionLost() EXCLUDES(mutex_);
    /// Any message; it is ignored unless it is "online" or "offline" on a watched topic.
    void presenceArrived(std::string_view topic, std::string_view payload) EXCLUDES(mutex_);
    void responseArrived(const std::string& correlationData, std::string_view response) EXCLUDES(mutex_);

    /// The number of responses received, including late ones.
    std::uint64_t responses() const { return responses_; }

 private:
    enum class Broker { neverConnected, away, connected };
    enum class Presence { unknown, online, offline };
    enum class Step { send, wait, finish };

    /// unsent ──▶ sent ──▶ answered, connectionLost or serviceLost. Guarded by mutex_.
    struct Pending {
        enum class Stage { unsent, sent, answered, connectionLost, serviceLost };

        explicit Pending(const std::string& topic) : statusTopic(topic) {}
        const std::string& statusTopic;
        std::uint64_t number = 0;
        Stage stage = Stage::unsent;
        std::string response;
        common::ConditionVariable changed;
        std::optional<std::thread::id> reading;  // its caller, while it is in the reader
        std::atomic<Awaited> awaited{
            Awaited::response};  // by that caller, until it is notified; read without the mutex
    };
    struct WatchedService {
        Presence presence = Presence::unknown;
        std::optional<Clock::time_point> lastOnline;  // when it went offline; unset if it never was online
    };

    Step nextStep(const Pending& pending, Clock::time_point now, Clock::time_point deadline,
                  Clock::time_point& until) const REQUIRES(mutex_);
    Presence presenceOf(const std::string& statusTopic) const REQUIRES(mutex_);
    bool send(Pending& pending, const Send& send) REQUIRES(mutex_);
    void wait(Pending& pending, Clock::time_point until) REQUIRES(mutex_);
    void notify(Pending& pending) REQUIRES(mutex_);
    bool awaitService(const std::string& statusTopic, std::chrono::milliseconds limit) REQUIRES(mutex_);
    Clock::time_point limited(Clock::time_point deadline, Clock::time_point begun) const REQUIRES(mutex_);
    void setPresence(const std::string& statusTopic, WatchedService& service, Presence presence) REQUIRES(mutex_);
    void notifyWaiters() REQUIRES(mutex_);

    ResponseReader* const reader_;

    common::Mutex mutex_;
    common::ConditionVariable finished_;         // a request or a wait for a service has ended
    common::ConditionVariable presenceChanged_;  // also when requests are limited or this is closed
    bool closed_ GUARDED_BY(mutex_) = false;
    Broker broker_ GUARDED_BY(mutex_) = Broker::neverConnected;
    Clock::time_point since_ GUARDED_BY(mutex_) =
        Clock::now();  // when the present connection began or the last one was lost
    std::map<std::string, WatchedService, std::less<>> services_ GUARDED_BY(mutex_);  // by status topic
    unsigned serviceWaits_ GUARDED_BY(mutex_) = 0;
    std::optional<std::chrono::milliseconds> limit_ GUARDED_BY(mutex_);
    Clock::time_point limitedSince_ GUARDED_BY(mutex_);
    std::vector<Pending*> pending_ GUARDED_BY(mutex_);  // few
    std::uint64_t next_ GUARDED_BY(mutex_) = 1;         // number of the next request

    std::atomic<std::uint64_t> responses_{0};
};

/// One request in flight, on one thread. The objects that it is constructed with must outlive it.
class Requests::Request {
 public:
    /// Sends the request if that is possible now. Does not wait.
    Request(Requests& requests, const std::string& statusTopic, std::chrono::milliseconds timeout, const Send& send);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    ~Request();

    /// As `ask`; the time-out runs since the construction. Call it once.
    std::string response();

 private:
    Requests& requests_;
    const Send& send_;
    const std::chrono::milliseconds timeout_;
    const Clock::time_point begun_ = Clock::now();
    Pending pending_;
    std::exception_ptr failure_;  // of the construction
};

}  // namespace ipc
