// What a command uses: output streams, the bus, and a stop signal. Tests supply their own.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "Terminal.h"
#include "common/StopSignal.h"
#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"

namespace zavctl {

struct Environment {
    std::ostream& out;
    std::ostream& err;
    bool outIsTerminal;
    bool errIsTerminal;  // progress is shown there
    common::StopSignal& stopSignal;
    /// Makes SIGINT and SIGTERM trigger `stopSignal`. Call it before starting threads.
    std::function<void()> catchSignals;
    std::function<std::shared_ptr<ipc::IIPCClient>(const std::string& host)> makeBus;
    std::function<std::shared_ptr<propertyapi::IPropertyApi>(std::shared_ptr<ipc::IIPCClient>)> makeProperties;
    /// If no pass has begun by then, `provision --wait` prints the likely reason.
    std::chrono::milliseconds hintAfter{2000};
    /// How often `provision --wait` says how far the pass is where it cannot draw a bar.
    std::chrono::milliseconds progressEvery{10000};
    std::function<std::chrono::steady_clock::time_point()> now = &std::chrono::steady_clock::now;
    /// The width of the terminal.
    std::function<std::size_t()> columns = &terminalColumns;
};

}  // namespace zavctl
