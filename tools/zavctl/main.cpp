// zavctl: inspects and controls a phone through its property service. Wiring only.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "Commands.h"
#include "Session.h"
#include "common/Descriptor.h"
#include "common/Signal.h"
#include "common/StopSignal.h"
#include "debug/Debug.h"
#include "ipc/IPCFactory.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace {

// How long an interrupted command may take to end by itself. A command that is waiting for the broker, for an answer or
// for the reader of its output does not see the stop signal.
constexpr std::chrono::milliseconds graceAfterInterruption{200};

common::StopSignal& stopSignal() {
    static common::StopSignal signal;
    return signal;
}

common::StopSignal& commandEnded() {
    static common::StopSignal signal;
    return signal;
}

void onInterruption(int) {
    stopSignal().stop();
    // Each line of output was flushed, so nothing that was printed is lost.
    if (!commandEnded().waitFor(graceAfterInterruption)) std::_Exit(static_cast<int>(zavctl::ExitCode::done));
}

void catchSignals() {
    for (const int signal : {SIGINT, SIGTERM}) common::signal::registerCustomHandler(signal, onInterruption);
}

}  // namespace

int main(int argc, char** argv) {
    common::occupyStandardDescriptors();
    static dbg::Debug channel("ZAVCTL");
    dbg::Debug::setDebugLevelMask("1");  // errors only: the output reports everything else
    const std::vector<std::string> arguments(argv + 1, argv + argc);

    // Constructed before the signal thread that uses them.
    stopSignal();
    commandEnded();
    const auto reception = common::signal::registerHandler();

    zavctl::Environment environment{
        std::cout,
        std::cerr,
        ::isatty(STDOUT_FILENO) != 0,
        ::isatty(STDERR_FILENO) != 0,
        stopSignal(),
        catchSignals,
        [](const std::string& host) { return ipc::IPCFactory::createInstanceShared(zavctl::clientName, host, true); },
        [](std::shared_ptr<ipc::IIPCClient> bus) {
            return propertyapi::PropertyApiBuilder::getPropertyApi(std::move(bus), zavctl::clientName);
        }};
    const zavctl::ExitCode code = zavctl::run(arguments, environment);
    commandEnded().stop();
    return static_cast<int>(code);
}
