// What the options of the kit say: how to start the bus and the property service, and which keys there are.
#pragma once

#include <chrono>
#include <string>

namespace conformance {

struct Settings {
    std::string program;       // this one, to start it again
    std::string address;       // what clients connect to
    bool isTcp = false;        // the address is 127.0.0.1:PORT: connections can be cut
    bool hasRequests = true;   // the library has IIPCClient::request and IIPCService
    std::string startBus;      // stays in the foreground, unless there is a command to stop it
    std::string stopBus;       // empty: kill what was started
    std::string startService;  // empty: the property client is not checked
    std::string stopService;
    std::chrono::seconds patience{30};  // limit for events that must happen
    // Keys of the property service.
    std::string textKey = "System.General.Location";  // any text
    std::string numberKey = "Audio.Ringer.Volume";    // refuses the value "loud"
    std::string guardedKey = "State.Provisioning";    // refuses the source "provisioning"
};

/// Set once, before the first check.
inline Settings& settings() {
    static Settings settings;
    return settings;
}

}  // namespace conformance
