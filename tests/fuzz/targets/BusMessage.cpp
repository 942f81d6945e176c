// What the daemon does with a message from the bus, while provisioning is not enabled yet: a pass would use the
// network.
#include <memory>

#include "Core/Constants.h"
#include "Core/Dispatcher.h"
#include "Core/GlobalConfig.h"
#include "debug/Debug.h"
#include "fakes/FakeProperties.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "ipc/IIPCClient.h"
#include "propertyprotocol/Utf8.h"

namespace fuzz {

namespace {

class SilentBus : public ipc::IIPCClient {
 public:
    void connect(const std::string&) override {}
    void disconnect() override {}
    void subscribe(const std::string&, ipc::IIPCCallback&) override {}
    void publish(const std::string& topic, const std::string& payload, int) override {
        promise(topic == zav::constants.watchdogReplyTopic || topic == zav::constants.autoRebootReplyTopic,
                "a message causes replies only");
        promise(propertyprotocol::isUtf8(payload), "publishes UTF-8");
    }
    void watchPresence(const std::string&) override {}
    std::string request(const std::string&, const std::string&, const std::string&,
                        std::chrono::milliseconds) override {
        return "{}";
    }
};

class CheckingTimer : public zav::ProvisioningTimer {
 public:
    using ProvisioningTimer::ProvisioningTimer;
    void start(unsigned period) override {
        promise(period == 0 || (period >= 600 && period <= 86400), "the timer's period is in its range");
    }
};

struct Daemon {
    Daemon() { dispatcher.startHandling(); }

    const std::shared_ptr<fakes::FakeProperties> properties = std::make_shared<fakes::FakeProperties>(
        fakes::FakeProperties::Values{{"State.Security.Certificates.UpdateCABundle", ""}});
    CheckingTimer timer{properties};
    zav::Security security{properties};
    zav::Dispatcher dispatcher{std::make_shared<SilentBus>(), properties, timer, std::make_shared<zav::Curl>(),
                               security};
};

}  // namespace

void bus_message(const std::string& input) {
    static Daemon daemon;
    const auto [topic, content] = splitLine(input);
    daemon.dispatcher.messageArrived(topic, content);
    daemon.properties->forgetCalls();
    dbg::Debug::setDebugLevelMask("0");  // the message may have changed it
    zav::GlobalConfig::setProvisioningServer("");
}

}  // namespace fuzz
