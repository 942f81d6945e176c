// The property client over a bus client: time-outs and retries of each call.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Messages.h"
#include "common/ThreadSafety.h"
#include "ipc/IPCException.h"
#include "propertyapi/PropertyApiBuilder.h"
#include "propertyapi/RecoveryScope.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Topics.h"
#include "propertyprotocol/Utf8.h"

namespace propertyapi {

namespace {

using propertyprotocol::maxKeyBytes;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds timeout{5000};
constexpr milliseconds timeoutWhenUnresponsive{1000};
constexpr milliseconds shutdownTimeout{2000};
constexpr milliseconds recoveryWait{5000};

// Made once, not for each request.
const std::string getTopic = propertyprotocol::getTopic;
const std::string setTopic = propertyprotocol::setTopic;
const std::string listTopic = propertyprotocol::listTopic;
const std::string statusTopic = propertyprotocol::statusTopic;

// No service can know such a key, and one that is not UTF-8 cannot be sent.
void checkKey(const std::string& key) {
    if (key.size() > maxKeyBytes || !propertyprotocol::isUtf8(key)) {
        throw PropertyNotFoundException(errorText(key.substr(0, maxKeyBytes), "unknown key"));
    }
}

template <typename Step>
std::exception_ptr errorOf(const Step& step) {
    try {
        step();
    } catch (const std::exception&) {
        return std::current_exception();
    }
    return nullptr;
}

/// One call of the interface, which may take several requests.
struct Call {
    explicit Call(const std::string& property) : key(&property) {}

    const std::string* key;  // for error texts
    const Clock::time_point begun = Clock::now();
    const bool waitsForRecovery = RecoveryScope::onThisThread();
    Clock::time_point deadline;
    bool isFresh = true;            // no time has passed yet
    bool deadlineExtended = false;  // because the service came back
    std::string lossReason;         // why the last response was lost
};

class PropertyApi final : public IPropertyApi {
 public:
    PropertyApi(std::shared_ptr<ipc::IIPCClient> bus, std::string clientName)
        : bus_(std::move(bus)), clientName_(std::move(clientName)) {
        bus_->watchPresence(statusTopic);
    }

    std::string get(const std::string& key) override {
        checkKey(key);
        Call call = begin(key);
        return readValue(key, ask(call, getTopic, getRequest(key)));
    }

    std::vector<Reading> getEach(const std::vector<std::string>& keys) override {
        std::vector<Reading> readings(keys.size());
        if (keys.empty()) return readings;
        std::vector<std::unique_ptr<ipc::IPCRequest>> requests(keys.size());
        const auto forEach = [&](const auto& step) {
            for (std::size_t i = 0; i < keys.size(); ++i) {
                if (!readings[i].error) readings[i].error = errorOf([&] { step(i); });
            }
        };
        forEach([&](std::size_t i) { checkKey(keys[i]); });
        std::optional<Call> call;
        forEach([&](std::size_t i) {
            if (!call) call.emplace(begin(keys[i]));
            requests[i] = bus_->beginRequest(getTopic, getRequest(keys[i]), statusTopic, timeLeft(*call));
        });
        forEach([&](std::size_t i) {
            call->key = &keys[i];
            readings[i].text = readValue(keys[i], ask(*call, getTopic, getRequest(keys[i]), requests[i].get()));
        });
        return readings;
    }

    void set(const std::string& key, const std::string& value) override { set(key, clientName_, value); }

    // A set whose response was lost may have been executed, and each set is an event for subscribers. So the value is
    // read back, and the set is retried only if it was not executed. It is sent at most twice, as a set that crashes
    // the service must not do so for ever.
    void set(const std::string& key, const std::string& source, const std::string& value) override {
        checkKey(key);
        const std::string payload = setRequest(key, source, value);
        Call call = begin(key);
        for (int attempt = 1; attempt <= 2; ++attempt) {
            if (const auto response = request(call, setTopic, payload)) return checkSetResponse(key, *response);
            if (attempt == 1 && readValue(key, ask(call, getTopic, getRequest(key))) == value) return;
        }
        throw PropertyTimeoutException(errorText(key, call.lossReason));
    }

    PropertyPage list(const std::string& prefix, const std::string& after) override {
        Call call = begin(prefix);
        return readPage(prefix, ask(call, listTopic, listRequest(prefix, after)));
    }

    void beginShutdown() override {
        {
            const common::LockGuard lock(mutex_);
            if (shutdownBegun_) return;
            shutdownBegun_ = Clock::now();
        }
        bus_->limitRequests(shutdownTimeout);
    }

 private:
    Call begin(const std::string& key) {
        Call call(key);
        const common::LockGuard lock(mutex_);
        const bool unresponsive = isUnresponsive();
        if (unresponsive && shutdownBegun_) {
            throw PropertyTimeoutException(errorText(key, "the property service does not answer"));
        }
        call.deadline = call.begun + (unresponsive     ? timeoutWhenUnresponsive
                                      : shutdownBegun_ ? shutdownTimeout
                                                       : timeout);
        return call;
    }

    /// Sends a get or list, which may be repeated if the response was lost. `begun` is the first request, if it has
    /// been sent already.
    std::string ask(Call& call, const std::string& topic, const std::string& payload,
                    ipc::IPCRequest* begun = nullptr) {
        for (;; begun = nullptr) {
            if (auto response = request(call, topic, payload, begun)) return std::move(*response);
            if (Clock::now() >= deadlineOf(call)) throw PropertyTimeoutException(errorText(*call.key, call.lossReason));
        }
    }

    /// The response, or nothing if it was lost: then it is unknown whether the request was executed.
    std::optional<std::string> request(Call& call, const std::string& topic, const std::string& payload,
                                       ipc::IPCRequest* begun = nullptr) {
        for (;; begun = nullptr) {
            try {
                if (begun != nullptr) return begun->response();
                return bus_->request(topic, payload, statusTopic, timeLeft(call));
            } catch (const ipc::IPCInterruptedException& error) {
                call.lossReason = error.what();
                return std::nullopt;
            } catch (const ipc::IPCServiceLostException& error) {
                call.lossReason = error.what();
                return std::nullopt;
            } catch (const ipc::IPCOfflineException& error) {
                if (!waitForRecovery(call)) throw PropertyOfflineException(errorText(*call.key, error.what()));
            } catch (const ipc::IPCTimeoutException& error) {
                // It may not have been sent before the service came back.
                if (begun != nullptr && call.deadlineExtended && Clock::now() < deadlineOf(call)) continue;
                const common::LockGuard lock(mutex_);
                responsesAtTimeout_ = bus_->responsesReceived();
                throw PropertyTimeoutException(errorText(*call.key, error.what()));
            } catch (const ipc::IPCException& error) {
                throw PropertyException(errorText(*call.key, error.what()));
            }
        }
    }

    /// Waits for the service to come back, if the call may. The deadline is extended only once, as a service that keeps
    /// crashing must not block the call for ever.
    bool waitForRecovery(Call& call) {
        if (!call.waitsForRecovery || (call.deadlineExtended && Clock::now() >= deadlineOf(call))) return false;
        if (!bus_->waitForService(statusTopic, recoveryWait)) return false;
        if (!call.deadlineExtended) call.deadline = Clock::now() + timeout;
        call.deadlineExtended = true;
        return true;
    }

    milliseconds timeLeft(Call& call) {
        if (std::exchange(call.isFresh, false)) return std::chrono::ceil<milliseconds>(call.deadline - call.begun);
        const auto left = std::chrono::ceil<milliseconds>(deadlineOf(call) - Clock::now());
        return std::max(left, milliseconds(0));
    }

    Clock::time_point deadlineOf(const Call& call) EXCLUDES(mutex_) {
        const common::LockGuard lock(mutex_);
        if (!shutdownBegun_) return call.deadline;
        return std::min(call.deadline, std::max(call.begun, *shutdownBegun_) + shutdownTimeout);
    }

    /// Whether a call has timed out and no response has come since, not even a late one.
    bool isUnresponsive() const REQUIRES(mutex_) {
        return responsesAtTimeout_ && *responsesAtTimeout_ == bus_->responsesReceived();
    }

    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::string clientName_;

    common::Mutex mutex_;
    std::optional<std::uint64_t> responsesAtTimeout_ GUARDED_BY(mutex_);  // received before the last time-out
    std::optional<Clock::time_point> shutdownBegun_ GUARDED_BY(mutex_);
};

}  // namespace

std::shared_ptr<IPropertyApi> PropertyApiBuilder::getPropertyApi(std::shared_ptr<ipc::IIPCClient> bus,
                                                                 const std::string& clientName) {
    return std::make_shared<PropertyApi>(std::move(bus), clientName);
}

}  // namespace propertyapi
