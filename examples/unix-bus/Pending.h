// The requests of a client that wait for their answers, and what is known of the services that answer them.
//
// Threads: `ask` and `waitForService` block their callers; everything else returns at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace unixbus {

class Pending {
 public:
    using Clock = std::chrono::steady_clock;
    using milliseconds = std::chrono::milliseconds;

    /// Returns whether it was not watched before.
    bool watch(const std::string& statusTopic);
    std::string ask(const std::string& statusTopic, milliseconds timeout,
                    const std::function<void(const std::string& correlation)>& send);
    bool waitForService(const std::string& statusTopic, milliseconds limit);
    void limit(milliseconds limit);
    std::uint64_t answers() const;
    /// Ends all calls.
    void close();

    // What the client hears.
    void connecting();
    void connectFailed();
    void connected();
    void lost();
    void presenceArrived(const std::string& topic, const std::string& payload);
    void answerArrived(const std::string& correlation, const std::string& payload);

 private:
    enum class Bus { neverConnected, away, connected };
    enum class Stage { unsent, sent, answered, connectionLost, serviceLost };
    struct Request {
        std::string statusTopic;
        Stage stage = Stage::unsent;
        std::string answer;
    };
    struct Service {
        std::optional<bool> isOnline;
        std::optional<Clock::time_point> lastOnline;
    };

    /// When to look again; nothing if the request may be sent now. Throws if no answer can come.
    std::optional<Clock::time_point> nextLook(const Request& request, Clock::time_point deadline) const;
    void setPresence(const std::string& topic, Service& service, std::optional<bool> isOnline);
    Clock::time_point limited(Clock::time_point deadline, Clock::time_point begun) const;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    Bus bus_ = Bus::neverConnected;
    Clock::time_point since_ = Clock::now();
    std::map<std::string, Service> services_;
    std::map<std::string, Request*> requests_;  // by correlation
    std::uint64_t next_ = 1;
    std::uint64_t answers_ = 0;
    unsigned calls_ = 0;
    bool closed_ = false;
    std::optional<milliseconds> limit_;
    Clock::time_point limitedSince_;
};

}  // namespace unixbus
