#include "PropertyApi.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Messages.h"
#include "ipc/IPCException.h"

namespace propertyapi {

namespace {

const char* const statusTopic = "prop-service/status";
constexpr std::chrono::milliseconds timeout{5000};
constexpr std::size_t maxKeyBytes = 255;

// A key that no service can know, and that might not even be a text, is not sent.
void checkKey(const std::string& key) {
    if (key.size() > maxKeyBytes || !isUtf8(key)) {
        throw PropertyNotFoundException("Property '" + key.substr(0, maxKeyBytes) + "': unknown key");
    }
}

std::chrono::steady_clock::time_point deadlineFromNow() { return std::chrono::steady_clock::now() + timeout; }

}  // namespace

PropertyApi::PropertyApi(std::shared_ptr<ipc::IIPCClient> bus, std::string clientName)
    : bus_(std::move(bus)), clientName_(std::move(clientName)) {
    bus_->watchPresence(statusTopic);
}

std::string PropertyApi::get(const std::string& key) {
    checkKey(key);
    return readValue(key, ask("prop-service/get", key, getRequest(key), deadlineFromNow()));
}

void PropertyApi::set(const std::string& key, const std::string& value) { set(key, clientName_, value); }

// A set whose connection broke may have been carried out, and a second one would be a second event: so it is read back,
// and made again only when it was not.
void PropertyApi::set(const std::string& key, const std::string& source, const std::string& value) {
    checkKey(key);
    const auto deadline = deadlineFromNow();
    const std::string payload = setRequest(key, source, value);
    try {
        readAcceptance(key, request("prop-service/set", key, payload, deadline));
        return;
    } catch (const ipc::IPCInterruptedException&) {
    }
    if (readValue(key, ask("prop-service/get", key, getRequest(key), deadline)) == value) return;
    try {
        readAcceptance(key, request("prop-service/set", key, payload, deadline));
    } catch (const ipc::IPCInterruptedException& error) {
        throw PropertyTimeoutException("Property '" + key + "': " + error.what());
    }
}

PropertyPage PropertyApi::list(const std::string& prefix, const std::string& after) {
    return readPage(prefix, ask("prop-service/list", prefix, listRequest(prefix, after), deadlineFromNow()));
}

// A question that may be asked again when the connection breaks before its answer comes.
std::string PropertyApi::ask(const char* topic, const std::string& key, const std::string& payload, Deadline deadline) {
    for (;;) {
        try {
            return request(topic, key, payload, deadline);
        } catch (const ipc::IPCInterruptedException& error) {
            if (std::chrono::steady_clock::now() >= deadline) {
                throw PropertyTimeoutException("Property '" + key + "': " + error.what());
            }
        }
    }
}

std::string PropertyApi::request(const char* topic, const std::string& key, const std::string& payload,
                                 Deadline deadline) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    try {
        return bus_->request(topic, payload, statusTopic, std::max(left, milliseconds(0)));
    } catch (const ipc::IPCInterruptedException&) {
        throw;
    } catch (const ipc::IPCOfflineException& error) {
        throw PropertyOfflineException("Property '" + key + "': " + error.what());
    } catch (const ipc::IPCTimeoutException& error) {
        throw PropertyTimeoutException("Property '" + key + "': " + error.what());
    } catch (const ipc::IPCException& error) {
        throw PropertyException("Property '" + key + "': " + error.what());
    }
}

}  // namespace propertyapi
