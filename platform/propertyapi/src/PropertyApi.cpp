#include "PropertyApi.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Messages.h"
#include "ipc/IPCException.h"
#include "propertyapi/PatientCalls.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Topics.h"
#include "propertyprotocol/Utf8.h"

namespace propertyapi {

namespace {

using propertyprotocol::getTopic;
using propertyprotocol::listTopic;
using propertyprotocol::maxKeyBytes;
using propertyprotocol::setTopic;
using propertyprotocol::statusTopic;

constexpr std::chrono::milliseconds timeout{5000};
constexpr std::chrono::milliseconds timeoutWhenUnresponsive{1000};
constexpr std::chrono::milliseconds shutdownTimeout{2000};
constexpr std::chrono::milliseconds recoveryWait{5000};

// No service can know such a key, and one that is not UTF-8 cannot be sent.
void checkKey(const std::string& key) {
    if (key.size() > maxKeyBytes || !propertyprotocol::isUtf8(key)) {
        throw PropertyNotFoundException("Property '" + key.substr(0, maxKeyBytes) + "': unknown key");
    }
}

std::string about(const std::string& key, const std::string& what) { return "Property '" + key + "': " + what; }

}  // namespace

PropertyApi::PropertyApi(std::shared_ptr<ipc::IIPCClient> bus, std::string clientName)
    : bus_(std::move(bus)), clientName_(std::move(clientName)) {
    bus_->watchPresence(statusTopic);
}

std::string PropertyApi::get(const std::string& key) {
    checkKey(key);
    Call call = begin(key);
    return readValue(key, ask(call, getTopic, getRequest(key)));
}

void PropertyApi::set(const std::string& key, const std::string& value) { set(key, clientName_, value); }

// A set whose answer was lost may have been executed, and each set is an event for subscribers. So the value is read
// back, and the set is retried only if it was not executed. It is sent at most twice, as a set that crashes the service
// must not do so for ever.
void PropertyApi::set(const std::string& key, const std::string& source, const std::string& value) {
    checkKey(key);
    const std::string payload = setRequest(key, source, value);
    Call call = begin(key);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        if (const auto answer = request(call, setTopic, payload)) return checkSetAnswer(key, *answer);
        if (attempt == 1 && readValue(key, ask(call, getTopic, getRequest(key))) == value) return;
    }
    throw PropertyTimeoutException(about(key, call.lossReason));
}

PropertyPage PropertyApi::list(const std::string& prefix, const std::string& after) {
    Call call = begin(prefix);
    return readPage(prefix, ask(call, listTopic, listRequest(prefix, after)));
}

void PropertyApi::beginShutdown() {
    {
        const common::LockGuard lock(mutex_);
        if (shutdownBegun_) return;
        shutdownBegun_ = Clock::now();
    }
    bus_->limitRequests(shutdownTimeout);
}

PropertyApi::Call PropertyApi::begin(const std::string& key) {
    Call call;
    call.key = key;
    call.begun = Clock::now();
    call.patient = PatientCalls::onThisThread();
    const common::LockGuard lock(mutex_);
    const bool unresponsive = isUnresponsive();
    if (unresponsive && shutdownBegun_)
        throw PropertyTimeoutException(about(key, "the property service does not answer"));
    call.deadline = call.begun + (unresponsive ? timeoutWhenUnresponsive : shutdownBegun_ ? shutdownTimeout : timeout);
    return call;
}

/// Sends a get or list, which may be repeated if the answer was lost.
std::string PropertyApi::ask(Call& call, const char* topic, const std::string& payload) {
    for (;;) {
        if (auto answer = request(call, topic, payload)) return std::move(*answer);
        if (Clock::now() >= deadlineOf(call)) throw PropertyTimeoutException(about(call.key, call.lossReason));
    }
}

/// The answer, or nothing if it was lost: then it is unknown whether the request was executed.
std::optional<std::string> PropertyApi::request(Call& call, const char* topic, const std::string& payload) {
    using std::chrono::milliseconds;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadlineOf(call) - Clock::now());
        try {
            return bus_->request(topic, payload, statusTopic, std::max(left, milliseconds(0)));
        } catch (const ipc::IPCInterruptedException& error) {
            call.lossReason = error.what();
            return std::nullopt;
        } catch (const ipc::IPCServiceLostException& error) {
            call.lossReason = error.what();
            return std::nullopt;
        } catch (const ipc::IPCOfflineException& error) {
            if (!waitForRecovery(call)) throw PropertyOfflineException(about(call.key, error.what()));
        } catch (const ipc::IPCTimeoutException& error) {
            noteTimeout();
            throw PropertyTimeoutException(about(call.key, error.what()));
        } catch (const ipc::IPCException& error) {
            throw PropertyException(about(call.key, error.what()));
        }
    }
}

/// Waits for the service to come back, if the call is patient. The deadline is extended only once, as a service that
/// keeps crashing must not block the call for ever.
bool PropertyApi::waitForRecovery(Call& call) {
    if (!call.patient || (call.deadlineExtended && Clock::now() >= deadlineOf(call))) return false;
    if (!bus_->waitForService(statusTopic, recoveryWait)) return false;
    if (!call.deadlineExtended) call.deadline = Clock::now() + timeout;
    call.deadlineExtended = true;
    return true;
}

PropertyApi::Clock::time_point PropertyApi::deadlineOf(const Call& call) {
    const common::LockGuard lock(mutex_);
    if (!shutdownBegun_) return call.deadline;
    return std::min(call.deadline, std::max(call.begun, *shutdownBegun_) + shutdownTimeout);
}

void PropertyApi::noteTimeout() {
    const common::LockGuard lock(mutex_);
    answersAtTimeout_ = bus_->answersReceived();
}

/// Whether a call has timed out and no answer has come since, not even a late one.
bool PropertyApi::isUnresponsive() const { return answersAtTimeout_ && *answersAtTimeout_ == bus_->answersReceived(); }

}  // namespace propertyapi
