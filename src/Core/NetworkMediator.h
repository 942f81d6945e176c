// Waits until the network is ready and stable, then enables provisioning, once per process.
//
// Threads: runs on a thread of its own. The destructor ends the waits and returns once the thread no longer uses the
// dispatcher. An exception from the readiness check terminates the process, so that the service manager restarts it: a
// daemon that never accepts provisioning requests would be worse. isServerReachable does not throw.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Core/Dispatcher.h"

namespace zav {

constexpr std::chrono::seconds stabilisationTime{90};

struct MediatorTiming {
    std::chrono::milliseconds pollInterval{5000};
    std::chrono::seconds stabilisation{stabilisationTime};
};

class NetworkMediator {
 public:
    using Check = std::function<bool()>;

    explicit NetworkMediator(MediatorTiming timing = {});
    ~NetworkMediator();
    NetworkMediator(const NetworkMediator&) = delete;
    NetworkMediator& operator=(const NetworkMediator&) = delete;

    /// Starts the thread, which calls `first` before anything else. Call once. Throws std::system_error if no thread
    /// can be started.
    void start(std::shared_ptr<Dispatcher> dispatcher, Check isReady, std::function<void()> first = {});

 private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace zav
