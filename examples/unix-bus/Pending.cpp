#include "Pending.h"

#include <algorithm>

#include "ipc/IPCException.h"

namespace unixbus {

namespace {
constexpr std::chrono::milliseconds reconnectionLimit{2000};
constexpr std::chrono::milliseconds presenceLimit{1000};
}  // namespace

bool Pending::watch(const std::string& statusTopic) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return services_.emplace(statusTopic, Service()).second;
}

std::string Pending::ask(const std::string& statusTopic, milliseconds timeout,
                         const std::function<void(const std::string&)>& send) {
    const auto begun = Clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    Request request{statusTopic, Stage::unsent, ""};
    const std::string correlation = std::to_string(next_++);
    requests_[correlation] = &request;
    struct Removal {
        Pending& pending;
        const std::string& correlation;
        ~Removal() {
            pending.requests_.erase(correlation);
            pending.changed_.notify_all();
        }
    } const removal{*this, correlation};
    while (request.stage != Stage::answered) {
        const auto until = nextLook(request, limited(begun + timeout, begun));
        if (until) {
            changed_.wait_until(lock, *until);
            continue;
        }
        request.stage = Stage::sent;
        send(correlation);  // only queues it
    }
    return request.answer;
}

std::optional<Pending::Clock::time_point> Pending::nextLook(const Request& request, Clock::time_point deadline) const {
    const std::string& topic = request.statusTopic;
    const auto found = services_.find(topic);
    if (found == services_.end()) throw ipc::IPCException("The presence on " + topic + " is not watched");
    if (closed_) throw ipc::IPCOfflineException("The bus client is closed");
    if (request.stage == Stage::connectionLost) {
        throw ipc::IPCInterruptedException("The connection was lost before the answer came");
    }
    if (request.stage == Stage::serviceLost) throw ipc::IPCServiceLostException("The service on " + topic + " is gone");
    if (bus_ == Bus::neverConnected) throw ipc::IPCOfflineException("The bus client is not connected");
    const auto now = Clock::now();
    const bool isKnown = found->second.isOnline.has_value();
    auto until = deadline;
    if (bus_ == Bus::away) {
        until = std::min(until, since_ + reconnectionLimit);
        if (now >= since_ + reconnectionLimit) throw ipc::IPCOfflineException("There is no connection to the bus");
    } else if (isKnown && !*found->second.isOnline) {
        throw ipc::IPCOfflineException("The service on " + topic + " is offline");
    } else if (!isKnown) {
        until = std::min(until, since_ + presenceLimit);
        if (now >= since_ + presenceLimit) throw ipc::IPCOfflineException("There is no presence on " + topic);
    }
    if (now >= deadline) throw ipc::IPCTimeoutException("No answer in time");
    const bool maySend = bus_ == Bus::connected && isKnown && request.stage == Stage::unsent;
    return maySend ? std::nullopt : std::optional(until);
}

Pending::Clock::time_point Pending::limited(Clock::time_point deadline, Clock::time_point begun) const {
    return limit_ ? std::min(deadline, std::max(begun, limitedSince_) + *limit_) : deadline;
}

bool Pending::waitForService(const std::string& statusTopic, milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++calls_;
    bool isOnline = false;
    for (;;) {
        const auto found = services_.find(statusTopic);
        if (closed_ || found == services_.end()) break;
        isOnline = bus_ == Bus::connected && found->second.isOnline == true;
        if (isOnline || limit_ || !found->second.lastOnline) break;
        const auto until = *found->second.lastOnline + limit;
        if (Clock::now() >= until) break;
        changed_.wait_until(lock, until);
    }
    --calls_;
    changed_.notify_all();
    return isOnline;
}

void Pending::limit(milliseconds limit) {
    const std::lock_guard<std::mutex> lock(mutex_);
    limit_ = limit;
    limitedSince_ = Clock::now();
    changed_.notify_all();
}

std::uint64_t Pending::answers() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return answers_;
}

void Pending::close() {
    std::unique_lock<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return requests_.empty() && calls_ == 0; });
}

void Pending::connecting() {
    const std::lock_guard<std::mutex> lock(mutex_);
    bus_ = Bus::away;
    since_ = Clock::now();
}

void Pending::connectFailed() {
    const std::lock_guard<std::mutex> lock(mutex_);
    bus_ = Bus::away;
    since_ = Clock::now() - reconnectionLimit;
    changed_.notify_all();
}

void Pending::connected() {
    const std::lock_guard<std::mutex> lock(mutex_);
    bus_ = Bus::connected;
    since_ = Clock::now();
    changed_.notify_all();
}

void Pending::lost() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (bus_ == Bus::connected) since_ = Clock::now();
    bus_ = Bus::away;
    for (const auto& [correlation, request] : requests_) {
        if (request->stage == Stage::sent) request->stage = Stage::connectionLost;
    }
    for (auto& [topic, service] : services_) setPresence(topic, service, std::nullopt);
    changed_.notify_all();
}

void Pending::presenceArrived(const std::string& topic, const std::string& payload) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = services_.find(topic);
    if (found == services_.end() || (payload != "online" && payload != "offline")) return;
    setPresence(topic, found->second, payload == "online");
    changed_.notify_all();
}

void Pending::setPresence(const std::string& topic, Service& service, std::optional<bool> isOnline) {
    if (service.isOnline == true && isOnline != true) service.lastOnline = Clock::now();
    service.isOnline = isOnline;
    if (isOnline != false) return;
    for (const auto& [correlation, request] : requests_) {
        if (request->stage == Stage::sent && request->statusTopic == topic) request->stage = Stage::serviceLost;
    }
}

void Pending::answerArrived(const std::string& correlation, const std::string& payload) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (correlation.empty() || correlation.find_first_not_of("0123456789") != std::string::npos) return;
    if (correlation.size() > 19 || std::stoull(correlation) >= next_) return;
    ++answers_;
    const auto found = requests_.find(correlation);
    if (found == requests_.end() || found->second->stage == Stage::answered) return;
    found->second->stage = Stage::answered;
    found->second->answer = payload;
    changed_.notify_all();
}

}  // namespace unixbus
