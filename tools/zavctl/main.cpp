// zavctl: looks into and steers a phone through its property service. Wiring only.
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "CommandLine.h"
#include "Session.h"
#include "common/Descriptor.h"
#include "common/Signal.h"
#include "debug/Debug.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

zavctl::StopSignal& stopSignal() {
    static zavctl::StopSignal signal;
    return signal;
}

void catchSignals() {
    for (const int signal : {SIGINT, SIGTERM}) {
        common::signal::registerCustomHandler(signal, [](int) { stopSignal().set(); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    common::occupyStandardDescriptors();
    static dbg::Debug channel("ZAVCTL");
    dbg::Debug::setDebugLevelMask("1");  // what matters is in the output already
    const std::vector<std::string> arguments(argv + 1, argv + argc);

    const auto reception = common::signal::registerHandler();

    const zavctl::Environment environment{
        std::cout,
        std::cerr,
        ::isatty(STDOUT_FILENO) != 0,
        stopSignal(),
        catchSignals,
        [](const std::string& host) { return ipc::IPCFactory::createInstanceShared(zavctl::clientName, host, true); },
        [](std::shared_ptr<ipc::IIPCClient> bus) {
            return propertyapi::PropertyApiBuilder::getPropertyApi(std::move(bus), zavctl::clientName);
        }};
    return static_cast<int>(zavctl::run(arguments, environment));
}
