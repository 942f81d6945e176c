// The checks of `zavctl doctor`, which finds out why a phone does not provision. They write no property, request no
// pass, and leave no file. Each takes a few seconds at most, whatever hangs.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Environment.h"
#include "http/ServerProbe.h"

namespace zavctl {

enum class Level { ok, warning, error, unknown };  // unknown: could not be checked

struct Finding {
    Level level;
    std::string text;
    std::string fix = {};  // what to do about a warning or an error
};

inline Finding ok(const std::string& text) { return {Level::ok, text}; }
inline Finding warning(const std::string& text, const std::string& fix) { return {Level::warning, text, fix}; }
inline Finding error(const std::string& text, const std::string& fix) { return {Level::error, text, fix}; }
inline Finding notChecked(const std::string& reason) { return {Level::unknown, "not checked: " + reason}; }

/// Waits for a message of the bus.
class Answer final : public ipc::IIPCCallback {
 public:
    void connectionLost(const std::string& /*cause*/) override {}
    void messageArrived(const std::string& /*topic*/, const std::string& /*content*/) override { arrived_.stop(); }
    void deliveryComplete(const std::string& /*topic*/) override {}
    bool waitFor(std::chrono::milliseconds time) { return arrived_.waitFor(time); }

 private:
    common::StopSignal arrived_;
};

/// What the checks are given, and what those before have found out.
struct Examination {
    Examination() = default;
    Examination(const Examination&) = delete;
    Examination& operator=(const Examination&) = delete;
    ~Examination() {
        if (bus != nullptr) bus->disconnect();  // before the answers are destroyed
    }

    std::string host;                              // of the broker
    std::string log;                               // of the daemon; empty: the journal
    std::string folder;                            // for temporary files; empty: there is none
    std::shared_ptr<common::StopSignal> deadline;  // ends downloads and commands
    Answer busy;
    Answer alive;
    std::shared_ptr<ipc::IIPCClient> bus;
    std::shared_ptr<propertyapi::IPropertyApi> properties;

    bool brokerAnswers = false;
    bool serviceAnswers = false;
    bool daemonAnswers = false;
    std::string macAddress;
    std::optional<zav::UrlInfo> url;  // of the initial file
    zav::ServerProbe probe;           // of its server
    bool downloaded = false;          // the initial file
    std::string file() const { return folder + "/initial.xml"; }
};

/// What `run` throws is the reason why the subject could not be checked.
struct Check {
    const char* subject;
    Finding (*run)(Examination&);
};

/// Programs, files, clock and network of the phone.
std::vector<Check> phoneChecks();
/// Broker, property service and daemon.
std::vector<Check> busChecks();
/// The provisioning server and its initial file. They need the bus checks.
std::vector<Check> serverChecks();

}  // namespace zavctl
