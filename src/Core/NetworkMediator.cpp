#include "Core/NetworkMediator.h"

#include <thread>
#include <utility>

#include "common/StopSignal.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"

namespace zav {

// Shared with the thread, which may outlive the mediator.
struct NetworkMediator::Shared {
    explicit Shared(Timing chosen) : timing(chosen) {}

    const Timing timing;
    common::StopSignal stopping;
    common::Mutex mutex;  // held by start until `thread` is assigned
    common::ConditionVariable ended;
    std::thread thread GUARDED_BY(mutex);
    bool running GUARDED_BY(mutex) = false;  // the thread still uses the dispatcher
};

NetworkMediator::NetworkMediator() : NetworkMediator(Timing()) {}

NetworkMediator::NetworkMediator(Timing timing) : shared_(std::make_shared<Shared>(timing)) {}

NetworkMediator::~NetworkMediator() {
    shared_->stopping.stop();
    const common::LockGuard lock(shared_->mutex);
    shared_->ended.wait(shared_->mutex, [this]() REQUIRES(shared_->mutex) { return !shared_->running; });
}

void NetworkMediator::start(std::shared_ptr<Dispatcher> dispatcher, Check isReady, std::function<void()> first) {
    const common::LockGuard lock(shared_->mutex);
    shared_->thread = std::thread([shared = shared_, held = std::move(dispatcher), check = std::move(isReady),
                                   before = std::move(first)]() mutable {
        { const common::LockGuard started(shared->mutex); }
        if (before) before();
        run(shared, held, check);
        held.reset();
        const common::LockGuard ending(shared->mutex);
        if (shared->thread.joinable()) shared->thread.detach();
        shared->running = false;
        shared->ended.notifyAll();
    });
    shared_->running = true;
}

bool NetworkMediator::waitForNetwork(Shared& shared, const Check& isReady) {
    bool firstFailure = true;
    while (!isReady()) {
        if (shared.stopping.waitFor(shared.timing.pollInterval)) return false;
        if (firstFailure) {
            dbg::Debug::warning() << "Network not ready yet." << std::endl;
            firstFailure = false;
        }
    }
    return true;
}

void NetworkMediator::run(const std::shared_ptr<Shared>& shared, const std::shared_ptr<Dispatcher>& dispatcher,
                          const Check& isReady) {
    dbg::Debug::info() << "start network state checker" << std::endl;
    if (!waitForNetwork(*shared, isReady)) return;
    {
        const common::LockGuard lock(shared->mutex);
        shared->thread.detach();
    }
    dbg::Debug::info() << "Network interface is configured, waiting: " << stabilisationTime.count()
                       << "seconds for stabilization." << std::endl;
    if (shared->stopping.waitFor(shared->timing.stabilisation)) return;
    dbg::Debug::info() << "Enabling provisioning function." << std::endl;
    dispatcher->enableProvisioning();
}

}  // namespace zav
