// What a command works with: the output, the way to the bus, and the wish to end. Tests bring their own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"

namespace zavctl {

/// Set once by whoever wants a command that runs until then to end. For any thread.
class StopSignal {
 public:
    void set();
    void wait();

 private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;  // guarded by mutex_
};

struct Environment {
    std::ostream& out;
    std::ostream& err;
    bool outIsTerminal;
    StopSignal& stop;
    /// From here on interruption and termination set `stop`; to be called before there are threads.
    std::function<void()> catchSignals;
    std::function<std::shared_ptr<ipc::IIPCClient>(const std::string& host)> makeBus;
    std::function<std::shared_ptr<propertyapi::IPropertyApi>(std::shared_ptr<ipc::IIPCClient>)> makeProperties;
    /// How long a pass may take to begin before the user is told why it may not.
    std::chrono::milliseconds hintAfter{2000};
};

}  // namespace zavctl
