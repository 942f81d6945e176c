#include "Requests.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "ipc/IPCException.h"

namespace ipc {

namespace {

// How long a request waits for a reconnection, and for the first presence of a service.
constexpr std::chrono::milliseconds reconnectWait{2000};
constexpr std::chrono::milliseconds presenceWait{1000};

std::string correlationOf(std::uint64_t number) {
    std::string correlation(sizeof number, '\0');
    std::memcpy(correlation.data(), &number, sizeof number);
    return correlation;
}

}  // namespace

bool Requests::watch(const std::string& statusTopic) {
    const common::LockGuard lock(mutex_);
    return services_.emplace(statusTopic, WatchedService()).second;
}

bool Requests::isWatched(std::string_view statusTopic) {
    const common::LockGuard lock(mutex_);
    return services_.find(statusTopic) != services_.end();
}

// ---- requests ----

std::string Requests::ask(const std::string& statusTopic, std::chrono::milliseconds timeout, const Send& send) {
    return Request(*this, statusTopic, timeout, send).response();
}

Requests::Request::Request(Requests& requests, const std::string& statusTopic, std::chrono::milliseconds timeout,
                           const Send& send)
    : requests_(requests), send_(send), timeout_(timeout), pending_(statusTopic) {
    const common::LockGuard lock(requests_.mutex_);
    pending_.number = requests_.next_++;
    requests_.pending_.push_back(&pending_);
    try {
        Clock::time_point until;
        const auto deadline = requests_.limited(begun_ + timeout_, begun_);
        if (requests_.nextStep(pending_, begun_, deadline, until) == Step::send) requests_.send(pending_, send_);
    } catch (...) {
        failure_ = std::current_exception();
    }
}

Requests::Request::~Request() {
    const common::LockGuard lock(requests_.mutex_);
    auto& all = requests_.pending_;
    all.erase(std::find(all.begin(), all.end(), &pending_));
    if (requests_.closed_) requests_.finished_.notifyAll();
}

std::string Requests::Request::response() {
    if (failure_) std::rethrow_exception(failure_);
    const common::LockGuard lock(requests_.mutex_);
    for (;;) {
        const Clock::time_point deadline = requests_.limited(begun_ + timeout_, begun_);
        Clock::time_point until = deadline;
        switch (requests_.nextStep(pending_, Clock::now(), deadline, until)) {
            case Step::finish:
                return std::move(pending_.response);
            case Step::wait:
                requests_.wait(pending_, until);
                break;
            case Step::send:
                if (requests_.send(pending_, send_) || requests_.broker_ != Broker::connected) break;
                // The connection was lost just now, which has not been reported yet.
                pending_.changed.waitUntil(requests_.mutex_, std::min(deadline, Clock::now() + presenceWait));
                break;
        }
    }
}

/// Returns once it is notified or it is time; it may return earlier.
void Requests::wait(Pending& pending, Clock::time_point until) {
    if (reader_ != nullptr && pending.stage == Pending::Stage::sent) {
        pending.awaited = Awaited::response;
        pending.reading = std::this_thread::get_id();
        bool hasRead = false;
        {
            const common::UnlockGuard unlocked(mutex_);
            hasRead = reader_->read(until, [&] { return pending.awaited.load(); });
        }
        pending.reading.reset();
        if (hasRead || pending.awaited != Awaited::response) return;
    }
    pending.changed.waitUntil(mutex_, until);
}

void Requests::notify(Pending& pending) {
    pending.awaited = pending_.size() > 1 ? Awaited::othersResponses : Awaited::nothing;
    pending.changed.notifyOne();
    if (pending.reading && *pending.reading != std::this_thread::get_id()) reader_->interrupt();
}

/// The next step of a request's caller; throws if the response can no longer come.
Requests::Step Requests::nextStep(const Pending& pending, Clock::time_point now, Clock::time_point deadline,
                                  Clock::time_point& until) const {
    const std::string& statusTopic = pending.statusTopic;
    if (pending.stage == Pending::Stage::answered) return Step::finish;
    if (closed_) throw IPCOfflineException("The bus client is closed");
    if (pending.stage == Pending::Stage::connectionLost) {
        throw IPCInterruptedException("The connection was lost before the answer came");
    }
    if (pending.stage == Pending::Stage::serviceLost) {
        throw IPCServiceLostException("The service on " + statusTopic + " went offline before its answer came");
    }
    const Presence presence = presenceOf(statusTopic);
    if (broker_ == Broker::neverConnected) throw IPCOfflineException("The bus client is not connected");
    if (broker_ == Broker::away) {
        if (now >= since_ + reconnectWait) throw IPCOfflineException("There is no connection to the broker");
        until = std::min(deadline, since_ + reconnectWait);
    } else if (presence == Presence::offline) {
        throw IPCOfflineException("The service on " + statusTopic + " is offline");
    } else if (presence == Presence::unknown) {
        if (now >= since_ + presenceWait) throw IPCOfflineException("There is no presence on " + statusTopic);
        until = std::min(deadline, since_ + presenceWait);
    }
    if (now >= deadline) throw IPCTimeoutException("No answer in time");
    const bool reachable = broker_ == Broker::connected && presence == Presence::online;
    return reachable && pending.stage == Pending::Stage::unsent ? Step::send : Step::wait;
}

Requests::Presence Requests::presenceOf(const std::string& statusTopic) const {
    const auto service = services_.find(statusTopic);
    if (service == services_.end()) throw IPCException("The presence on " + statusTopic + " is not watched");
    return service->second.presence;
}

/// Returns whether it was sent.
bool Requests::send(Pending& pending, const Send& send) {
    pending.stage = Pending::Stage::sent;
    bool sent = false;
    {
        const common::UnlockGuard unlocked(mutex_);
        sent = send(correlationOf(pending.number));
    }
    if (sent || pending.stage == Pending::Stage::answered) return true;
    pending.stage = Pending::Stage::unsent;
    return false;
}

void Requests::limit(std::chrono::milliseconds limit) {
    const common::LockGuard lock(mutex_);
    limit_ = limit;
    limitedSince_ = Clock::now();
    notifyWaiters();
}

Requests::Clock::time_point Requests::limited(Clock::time_point deadline, Clock::time_point begun) const {
    return limit_ ? std::min(deadline, std::max(begun, limitedSince_) + *limit_) : deadline;
}

void Requests::close() {
    const common::LockGuard lock(mutex_);
    closed_ = true;
    notifyWaiters();
    finished_.wait(mutex_, [this]() REQUIRES(mutex_) { return pending_.empty() && serviceWaits_ == 0; });
}

// ---- waits for a service ----

bool Requests::waitForService(const std::string& statusTopic, std::chrono::milliseconds limit) {
    const common::LockGuard lock(mutex_);
    ++serviceWaits_;
    const bool isOnline = awaitService(statusTopic, limit);
    --serviceWaits_;
    finished_.notifyAll();
    return isOnline;
}

bool Requests::awaitService(const std::string& statusTopic, std::chrono::milliseconds limit) {
    for (;;) {
        const auto service = services_.find(statusTopic);
        if (closed_ || service == services_.end()) return false;
        if (broker_ == Broker::connected && service->second.presence == Presence::online) return true;
        if (limit_ || !service->second.lastOnline) return false;
        const auto until = *service->second.lastOnline + limit;
        if (Clock::now() >= until) return false;
        presenceChanged_.waitUntil(mutex_, until);
    }
}

// ---- events ----

void Requests::connecting() {
    const common::LockGuard lock(mutex_);
    broker_ = Broker::away;
    since_ = Clock::now();
}

void Requests::connectFailed() {
    const common::LockGuard lock(mutex_);
    broker_ = Broker::away;
    since_ = Clock::now() - reconnectWait;
}

void Requests::connected() {
    const common::LockGuard lock(mutex_);
    broker_ = Broker::connected;
    since_ = Clock::now();
    notifyWaiters();
}

void Requests::connectionLost() {
    const common::LockGuard lock(mutex_);
    // A connection that is lost before it is ready must not restart the wait for a reconnection.
    if (broker_ == Broker::connected) since_ = Clock::now();
    broker_ = Broker::away;
    for (Pending* const pending : pending_) {
        if (pending->stage == Pending::Stage::sent) pending->stage = Pending::Stage::connectionLost;
    }
    for (auto& [topic, service] : services_) setPresence(topic, service, Presence::unknown);
    notifyWaiters();
}

void Requests::presenceArrived(std::string_view topic, std::string_view payload) {
    // Ignore any other payload; an empty one means that the retained presence was cleared.
    const bool isOnline = payload == "online";
    if (!isOnline && payload != "offline") return;
    const common::LockGuard lock(mutex_);
    const auto service = services_.find(topic);
    if (service == services_.end()) return;
    setPresence(service->first, service->second, isOnline ? Presence::online : Presence::offline);
    notifyWaiters();
}

// Requests in flight are marked here, not by their callers: "online" may follow before a caller wakes.
void Requests::setPresence(const std::string& statusTopic, WatchedService& service, Presence presence) {
    if (service.presence == Presence::online && presence != Presence::online) service.lastOnline = Clock::now();
    service.presence = presence;
    if (presence != Presence::offline) return;
    for (Pending* const pending : pending_) {
        const bool isInFlight = pending->stage == Pending::Stage::sent && pending->statusTopic == statusTopic;
        if (isInFlight) pending->stage = Pending::Stage::serviceLost;
    }
}

void Requests::responseArrived(const std::string& correlationData, std::string_view response) {
    std::uint64_t number = 0;
    if (correlationData.size() != sizeof number) return;
    std::memcpy(&number, correlationData.data(), sizeof number);
    const common::LockGuard lock(mutex_);
    if (number == 0 || number >= next_) return;
    ++responses_;
    const auto found = std::find_if(pending_.begin(), pending_.end(),
                                    [number](const Pending* each) { return each->number == number; });
    if (found == pending_.end() || (*found)->stage == Pending::Stage::answered) return;
    (*found)->response = std::string(response);  // first: without memory the request must not look answered
    (*found)->stage = Pending::Stage::answered;
    notify(**found);
}

void Requests::notifyWaiters() {
    for (Pending* const pending : pending_) notify(*pending);
    presenceChanged_.notifyAll();
}

}  // namespace ipc
