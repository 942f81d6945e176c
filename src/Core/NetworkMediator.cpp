#include "Core/NetworkMediator.h"

#include <thread>
#include <utility>

#include "common/StopSignal.h"
#include "common/ThreadSafety.h"
#include "debug/Debug.h"

namespace zav {

// Shared with the thread, which may outlive the mediator.
struct NetworkMediator::Shared {
    explicit Shared(MediatorTiming chosen) : timing(chosen) {}

    bool waitForNetwork(const Check& isReady);
    void run(Dispatcher& dispatcher, const Check& isReady);

    const MediatorTiming timing;
    common::StopSignal stopping;
    common::Mutex mutex;  // held by start until `thread` is assigned
    common::ConditionVariable ended;
    std::thread thread GUARDED_BY(mutex);
    bool running GUARDED_BY(mutex) = false;  // the thread still uses the dispatcher
};

NetworkMediator::NetworkMediator(MediatorTiming timing) : shared_(std::make_shared<Shared>(timing)) {}

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
        shared->run(*held, check);
        held.reset();
        const common::LockGuard ending(shared->mutex);
        if (shared->thread.joinable()) shared->thread.detach();
        shared->running = false;
        shared->ended.notifyAll();
    });
    shared_->running = true;
}

bool NetworkMediator::Shared::waitForNetwork(const Check& isReady) {
    bool firstFailure = true;
    while (!isReady()) {
        if (stopping.waitFor(timing.pollInterval)) return false;
        if (firstFailure) {
            dbg::Debug::warning() << "Network not ready yet." << std::endl;
            firstFailure = false;
        }
    }
    return true;
}

void NetworkMediator::Shared::run(Dispatcher& dispatcher, const Check& isReady) {
    dbg::Debug::info() << "start network state checker" << std::endl;
    if (!waitForNetwork(isReady)) return;
    {
        const common::LockGuard lock(mutex);
        thread.detach();
    }
    dbg::Debug::info() << "Network interface is configured, waiting: " << stabilisationTime.count()
                       << "seconds for stabilization." << std::endl;
    if (stopping.waitFor(timing.stabilisation)) return;
    dbg::Debug::info() << "Enabling provisioning function." << std::endl;
    dispatcher.enableProvisioning();
}

}  // namespace zav
