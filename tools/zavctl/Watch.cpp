#include <chrono>

#include "Commands.h"
#include "Output.h"
#include "Session.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

// One subscription, so that changes keep their order. A prefix that does not contain a whole group needs every topic of
// two levels; the printer then ignores topics that are not changes.
std::string topicFilter(const std::string& prefix) {
    const std::string::size_type dot = prefix.find('.');
    if (dot == std::string::npos || dot == 0 || prefix.find_first_of("+#/") < dot) return "+/+";
    return propertyprotocol::changeFilter(prefix.substr(0, dot));
}

class Printer final : public ipc::IIPCCallback {
 public:
    Printer(const Environment& environment, bool json, std::string prefix)
        : environment_(environment), json_(json), prefix_(std::move(prefix)) {}

    void connectionLost(const std::string& cause) override {
        warn("connection lost, changes may be missing: " + cause);
    }

    void messageArrived(const std::string& topic, const std::string& content) override {
        propertyprotocol::Change change;
        if (!propertyprotocol::isChangeTopic(topic) || !propertyprotocol::readChange(content, change)) return;
        if (change.param.compare(0, prefix_.size(), prefix_) != 0) return;
        const common::LockGuard lock(mutex_);
        print(change);
        if (!environment_.out) environment_.stopSignal.stop();  // the output was closed
    }

    void deliveryComplete(const std::string&) override {}

    void warn(const std::string& text) {
        const common::LockGuard lock(mutex_);
        printError(environment_.err, text);
    }

 private:
    void print(const propertyprotocol::Change& change) REQUIRES(mutex_) {
        if (json_) {
            printJson(environment_.out,
                      toObject({{"param", change.param}, {"value", change.value}, {"source", change.source}}));
            return;
        }
        environment_.out << dbg::escapeControls(change.param + "=" + change.value);
        if (!change.source.empty()) environment_.out << "  (" << dbg::escapeControls(change.source) << ")";
        environment_.out << std::endl;
    }

    const Environment& environment_;
    const bool json_;
    const std::string prefix_;
    common::Mutex mutex_;  // guards the output
};

// Warns when the property service goes offline: its last changes are lost if it crashed, and it publishes none when it
// starts.
class PresencePrinter final : public ipc::IIPCCallback {
 public:
    explicit PresencePrinter(Printer& printer) : printer_(printer) {}

    void connectionLost(const std::string&) override {}
    void messageArrived(const std::string& topic, const std::string& content) override {
        if (topic != propertyprotocol::statusTopic) return;
        if (content == propertyprotocol::offlineStatus && wasOnline_)
            printer_.warn("the property service went offline, changes may be missing");
        wasOnline_ = content == propertyprotocol::onlineStatus;
    }
    void deliveryComplete(const std::string&) override {}

 private:
    Printer& printer_;
    bool wasOnline_ = false;  // delivery thread only
};

}  // namespace

void watch(const Environment& environment, const Options& options, const std::string& prefix) {
    environment.catchSignals();
    Printer printer(environment, options.json, prefix);
    PresencePrinter presence(printer);
    Session session(environment, options.host,
                    {{topicFilter(prefix), &printer}, {propertyprotocol::statusTopic, &presence}});
    // Also fails at once if the property service is offline.
    if (session.properties().list(prefix, "").properties.empty()) {
        printer.warn("no key begins with \"" + prefix + "\"; watching anyway");
    }
    while (!environment.stopSignal.waitFor(std::chrono::hours(1))) {
    }
}

}  // namespace zavctl
