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
constexpr std::chrono::milliseconds timeoutWhileSilent{1000};
constexpr std::chrono::milliseconds timeoutInShutdown{2000};
constexpr std::chrono::milliseconds patience{5000};

// A key that no service can know, and that might not even be a text, is not sent.
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

// A set whose answer was lost may have been carried out, and a second one would be a second event: so it is read back,
// and made again only if it was not. Twice at most: a set that crashes the service must not do so for ever.
void PropertyApi::set(const std::string& key, const std::string& source, const std::string& value) {
    checkKey(key);
    const std::string payload = setRequest(key, source, value);
    Call call = begin(key);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        if (const auto answer = request(call, setTopic, payload)) return readAcceptance(key, *answer);
        if (attempt == 1 && readValue(key, ask(call, getTopic, getRequest(key))) == value) return;
    }
    throw PropertyTimeoutException(about(key, call.doubt));
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
    bus_->limitRequests(timeoutInShutdown);
}

PropertyApi::Call PropertyApi::begin(const std::string& key) {
    Call call;
    call.key = key;
    call.begun = Clock::now();
    call.patient = PatientCalls::onThisThread();
    const common::LockGuard lock(mutex_);
    const bool silent = isSilent();
    if (silent && shutdownBegun_) throw PropertyTimeoutException(about(key, "the property service does not answer"));
    call.deadline = call.begun + (silent ? timeoutWhileSilent : shutdownBegun_ ? timeoutInShutdown : timeout);
    return call;
}

/// A question may be repeated when its answer was lost.
std::string PropertyApi::ask(Call& call, const char* topic, const std::string& payload) {
    for (;;) {
        if (auto answer = request(call, topic, payload)) return std::move(*answer);
        if (Clock::now() >= deadlineOf(call)) throw PropertyTimeoutException(about(call.key, call.doubt));
    }
}

/// The answer, or nothing if it was lost: whether the request was carried out is then not known.
std::optional<std::string> PropertyApi::request(Call& call, const char* topic, const std::string& payload) {
    using std::chrono::milliseconds;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadlineOf(call) - Clock::now());
        try {
            return bus_->request(topic, payload, statusTopic, std::max(left, milliseconds(0)));
        } catch (const ipc::IPCInterruptedException& error) {
            call.doubt = error.what();
            return std::nullopt;
        } catch (const ipc::IPCServiceLostException& error) {
            call.doubt = error.what();
            return std::nullopt;
        } catch (const ipc::IPCOfflineException& error) {
            if (!outlastsOutage(call)) throw PropertyOfflineException(about(call.key, error.what()));
        } catch (const ipc::IPCTimeoutException& error) {
            noteTimeout();
            throw PropertyTimeoutException(about(call.key, error.what()));
        } catch (const ipc::IPCException& error) {
            throw PropertyException(about(call.key, error.what()));
        }
    }
}

/// Waits for a service that went away, if the call is patient. Its time begins anew once only: a service that keeps
/// crashing must not hold it for ever.
bool PropertyApi::outlastsOutage(Call& call) {
    if (!call.patient || (call.renewed && Clock::now() >= deadlineOf(call))) return false;
    if (!bus_->waitForService(statusTopic, patience)) return false;
    if (!call.renewed) call.deadline = Clock::now() + timeout;
    call.renewed = true;
    return true;
}

PropertyApi::Clock::time_point PropertyApi::deadlineOf(const Call& call) {
    const common::LockGuard lock(mutex_);
    if (!shutdownBegun_) return call.deadline;
    return std::min(call.deadline, std::max(call.begun, *shutdownBegun_) + timeoutInShutdown);
}

void PropertyApi::noteTimeout() {
    const common::LockGuard lock(mutex_);
    answersAtTimeout_ = bus_->answersReceived();
}

/// Whether a call has timed out and no answer has come since, not even a late one.
bool PropertyApi::isSilent() const { return answersAtTimeout_ && *answersAtTimeout_ == bus_->answersReceived(); }

}  // namespace propertyapi
