#include "Bus.h"

#include <signal.h>

#include <cstdlib>
#include <stdexcept>

#include "Library.h"
#include "Settings.h"
#include "ipc/IPCException.h"

namespace conformance {

namespace {

bool accepts(const std::string& address) {
    try {
        const auto probe = busLibrary().client("zav-platform-probe", address, true);
        probe->connect(address);
        return true;
    } catch (const ipc::IPCException&) {
        return false;
    }
}

}  // namespace

Bus::Bus() : program_(settings().startBus, settings().stopBus) { start(); }

Bus::~Bus() { thaw(); }

const std::string& Bus::address() { return settings().address; }

int Bus::port() {
    const std::string& text = address();
    return std::atoi(text.substr(text.rfind(':') + 1).c_str());
}

void Bus::start() {
    program_.start();
    if (!within(startLimit, [] { return accepts(address()); })) {
        throw std::runtime_error("No client can connect to " + address() + " after " + settings().startBus);
    }
}

void Bus::stop() { program_.kill(); }
void Bus::freeze() const { program_.signal(SIGSTOP); }
void Bus::thaw() const { program_.signal(SIGCONT); }

}  // namespace conformance
