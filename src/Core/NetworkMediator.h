// Waits until the network is usable and has settled, and then enables provisioning. Once a process, on a thread of its
// own, which nobody has to join; destroying the mediator ends its waits and returns when it has let go of the
// dispatcher.
//
// What the readiness check throws ends the process: a daemon that is up and can never be asked to provision would be
// worse, and the service manager restarts it. The check that the daemon uses throws nothing.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Core/Dispatcher.h"

namespace zav {

class NetworkMediator {
 public:
    using Check = std::function<bool()>;

    struct Timing {
        std::chrono::milliseconds pollInterval{5000};
        std::chrono::seconds stabilisation{90};  // logged as 90, whatever a test puts here
    };

    NetworkMediator();
    explicit NetworkMediator(Timing timing);
    ~NetworkMediator();
    NetworkMediator(const NetworkMediator&) = delete;
    NetworkMediator& operator=(const NetworkMediator&) = delete;

    /// Starts the thread, which begins with `first`. To be called once. Throws std::system_error when there is no
    /// thread to be had.
    void start(std::shared_ptr<Dispatcher> dispatcher, Check isReady, std::function<void()> first = {});

 private:
    struct Shared;
    static void run(const std::shared_ptr<Shared>& shared, const std::shared_ptr<Dispatcher>& dispatcher,
                    const Check& isReady);
    static bool waitForNetwork(Shared& shared, const Check& isReady);

    std::shared_ptr<Shared> shared_;
};

}  // namespace zav
