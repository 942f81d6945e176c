#include "Core/Dispatcher.h"

#include <json/reader.h>
#include <json/value.h>

#include <memory>
#include <stdexcept>
#include <utility>

#include "Core/Constants.h"
#include "Core/GlobalConfig.h"
#include "Core/Utils.h"
#include "common/Quote.h"
#include "debug/Debug.h"
#include "ipc/IPCException.h"

namespace zav {

namespace {

constexpr std::chrono::milliseconds bootUpPollInterval{250};
constexpr int atLeastOnce = 1;

std::string textOf(const Json::Value& object, const std::string& name) {
    const Json::Value& member = object[name];
    return member.isArray() || member.isObject() ? std::string() : member.asString();
}

std::unique_ptr<Json::CharReader> newReader() {
    Json::CharReaderBuilder builder;
    builder["allowTrailingCommas"] = false;
    builder["skipBom"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

// Key and value. The key is empty if the content is not a JSON object.
std::pair<std::string, std::string> parse(const std::string& content) {
    // Making one takes longer than reading a message. Each of the bus's threads has its own.
    thread_local const std::unique_ptr<Json::CharReader> reader = newReader();
    Json::Value message;
    try {
        const bool parsed = reader->parse(content.data(), content.data() + content.size(), &message, nullptr);
        if (!parsed || !message.isObject()) return {};
    } catch (const Json::Exception&) {  // nested too deeply
        return {};
    }
    return {textOf(message, constants.messageKey), textOf(message, constants.messageValue)};
}

}  // namespace

Dispatcher::Dispatcher(std::shared_ptr<ipc::IIPCClient> bus, std::shared_ptr<propertyapi::IPropertyApi> properties,
                       ProvisioningTimer& timer, std::shared_ptr<Curl> http, Security& security)
    : handlers_{{constants.debugLevelMaskKey, &Dispatcher::setDebugLevelMask},
                {constants.periodKey, &Dispatcher::setTimerPeriod},
                {constants.provisioningServerKey, &Dispatcher::storeProvisioningServer},
                {constants.provisioningStateKey, &Dispatcher::handleProvisioningRequest},
                {constants.autoRebootBusyQueryKey, &Dispatcher::handleAutoRebootQuery},
                {constants.updateCaBundleKey, &Dispatcher::updateCertificateBundle},
                {constants.watchdogQuery, &Dispatcher::handleWatchdogQuery},
                {constants.firmwareTriggerAutoKey, &Dispatcher::handleProvisioningRequest}},
      bus_(std::move(bus)),
      properties_(std::move(properties)),
      timer_(timer),
      security_(security),
      progress_(bus_),
      worker_(properties_, std::move(http), security, &progress_) {}

void Dispatcher::startListening() {
    dbg::Debug::info() << "run IPC listening" << std::endl;
    try {
        bus_->subscribe(constants.statePropertyTopic, *this);
        bus_->subscribe(constants.systemPropertyTopic, *this);
        bus_->subscribe(constants.watchdogQueryTopic, *this);
        bus_->subscribe(constants.autoRebootQueryTopic, *this);
        bus_->connect(constants.brokerHost);
    } catch (const ipc::IPCException& e) {
        dbg::Debug::error() << "IPC error " << e.what() << std::endl;
        throw std::runtime_error(e.what());
    }
}

Dispatcher::~Dispatcher() {
    try {
        disconnect();
    } catch (const std::exception& e) {
        dbg::Debug::warning() << "Cannot disconnect IPC " << e.what() << std::endl;
    }
}

void Dispatcher::disconnect() {
    stopping_.stop();
    worker_.stop();
    bus_->disconnect();
}

void Dispatcher::stopListening() {
    try {
        disconnect();
    } catch (const ipc::IPCException& e) {
        dbg::Debug::warning() << "Cannot disconnect IPC " << e.what() << std::endl;
    }
    dbg::Debug::info() << "IPC listening terminated" << std::endl;
}

void Dispatcher::startHandling() {
    handlingStarted_ = true;
    dbg::Debug::info() << "start handling IPC messages" << std::endl;
}

void Dispatcher::connectionLost(const std::string& cause) {
    dbg::Debug::warning() << "IPC connection lost: " << cause << std::endl;
}

void Dispatcher::deliveryComplete(const std::string& topic) {
    dbg::Debug::info() << "Delivered message with topic: " << topic << std::endl;
}

void Dispatcher::messageArrived(const std::string& topic, const std::string& content) {
    dbg::Debug::info() << "Get message - topic: " << topic << " content: " << content << std::endl;
    if (!handlingStarted_) return;
    try {
        dispatch(content);
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Handling message failed: " << e.what() << std::endl;
    } catch (...) {
        dbg::Debug::error() << "Handling message failed" << std::endl;
    }
}

void Dispatcher::dispatch(const std::string& content) {
    const auto [key, value] = parse(content);
    const auto handler = handlers_.find(key);
    if (handler == handlers_.end()) {
        dbg::Debug::info() << "No handler for message: " << content << std::endl;
        return;
    }
    (this->*handler->second)(value);
}

void Dispatcher::setDebugLevelMask(const std::string& value) { dbg::Debug::setDebugLevelMask(value); }

void Dispatcher::setTimerPeriod(const std::string& value) {
    try {
        timer_.start(checkPeriod(value));
        dbg::Debug::info() << "Timer setting done" << std::endl;
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Wrong time format: " << e.what() << std::endl;
    }
}

void Dispatcher::storeProvisioningServer(const std::string& value) { GlobalConfig::setProvisioningServer(value); }

void Dispatcher::handleProvisioningRequest(const std::string& value) {
    if (!provisioningEnabled_) {
        dbg::Debug::warning() << "Handling provisioning requests not enabled yet" << std::endl;
        return;
    }
    if (value.find(constants.requestWord) != std::string::npos) worker_.startProvisioning("");
}

// No reply means not busy.
void Dispatcher::handleAutoRebootQuery(const std::string&) {
    try {
        if (!worker_.isProvisioningFinished()) {
            bus_->publish(constants.autoRebootReplyTopic, constants.busyReply, atLeastOnce);
        }
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Handling Autoreboot query failed: " << e.what() << std::endl;
    }
}

// The reset at the end arrives here again, as a change to the empty value.
void Dispatcher::updateCertificateBundle(const std::string& value) {
    if (value.empty()) return;
    security_.reloadCertificates();
    security_.notifySystemAboutNewCertificates();
    properties_->set(constants.updateCaBundleKey, "");
}

// A hanging pass must leave the watchdog without a reply.
void Dispatcher::handleWatchdogQuery(const std::string&) {
    try {
        worker_.waitForProgress();
        if (stopping_.isStopped()) return;
        bus_->publish(constants.watchdogReplyTopic, constants.watchdogReply, atLeastOnce);
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Cannot send response to watchdog: " << e.what() << std::endl;
    }
}

void Dispatcher::enableProvisioning() {
    provisioningEnabled_ = true;
    try {
        provisionOnBootUp();
    } catch (const propertyapi::PropertyNotFoundException&) {
        // A phone without this property has no boot-up provisioning.
    } catch (const std::exception& e) {
        dbg::Debug::error() << "PropertyApi exception: " << e.what() << std::endl;
    }
}

void Dispatcher::provisionOnBootUp() {
    const std::string value = properties_->get(constants.provisioningOnBootUpKey);
    security_.reloadCertificates();
    if (value == constants.bootUpDoneWord) {
        dbg::Debug::warning() << "Provisioning on boot up already done, skipping" << std::endl;
        return;
    }
    dbg::Debug::info() << "Do provisioning on boot up " << quote(constants.provisioningOnBootUpKey, value, "")
                       << std::endl;
    handleProvisioningRequest(constants.requestWord);
    while (!worker_.isProvisioningFinished()) {
        if (stopping_.waitFor(bootUpPollInterval)) return;
    }
    if (stopping_.isStopped()) return;
    properties_->set(constants.provisioningOnBootUpKey, constants.bootUpDoneWord);
}

}  // namespace zav
