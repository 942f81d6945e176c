#include "PropertyApi.h"

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

}  // namespace

PropertyApi::PropertyApi(std::shared_ptr<ipc::IIPCClient> bus, std::string clientName)
    : bus_(std::move(bus)), clientName_(std::move(clientName)) {
    bus_->watchPresence(statusTopic);
}

std::string PropertyApi::get(const std::string& key) {
    checkKey(key);
    return readValue(key, request("prop-service/get", key, getRequest(key)));
}

void PropertyApi::set(const std::string& key, const std::string& value) { set(key, clientName_, value); }

void PropertyApi::set(const std::string& key, const std::string& source, const std::string& value) {
    checkKey(key);
    readAcceptance(key, request("prop-service/set", key, setRequest(key, source, value)));
}

PropertyPage PropertyApi::list(const std::string& prefix, const std::string& after) {
    return readPage(prefix, request("prop-service/list", prefix, listRequest(prefix, after)));
}

std::string PropertyApi::request(const char* topic, const std::string& key, const std::string& payload) {
    try {
        return bus_->request(topic, payload, statusTopic, timeout);
    } catch (const ipc::IPCOfflineException& error) {
        throw PropertyOfflineException("Property '" + key + "': " + error.what());
    } catch (const ipc::IPCTimeoutException& error) {
        throw PropertyTimeoutException("Property '" + key + "': " + error.what());
    } catch (const ipc::IPCException& error) {
        throw PropertyException("Property '" + key + "': " + error.what());
    }
}

}  // namespace propertyapi
