#include "Core/ProvisioningWatchdog/DeferredWrites.h"

#include <algorithm>
#include <chrono>
#include <new>

#include "debug/Debug.h"
#include "propertyapi/PropertyExceptions.h"

namespace zav {

namespace {

constexpr std::chrono::milliseconds retryInterval{500};

}  // namespace

DeferredWrites::~DeferredWrites() {
    {
        const common::LockGuard lock(mutex_);
        ending_ = true;
    }
    changed_.notifyAll();
    if (thread_.joinable()) thread_.join();
}

// False if the write must be retried.
bool DeferredWrites::execute(const Write& write) {
    try {
        write();
    } catch (const propertyapi::PropertyOfflineException&) {
        return false;
    } catch (const propertyapi::PropertyTimeoutException&) {
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void DeferredWrites::write(Kind kind, const Write& write) {
    bool mustWait = false;
    {
        const common::LockGuard lock(mutex_);
        mustWait = !pending_.empty();
    }
    if (mustWait || !execute(write)) keep(kind, write);
}

void DeferredWrites::keep(Kind kind, const Write& write) {
    const common::LockGuard lock(mutex_);
    pending_.push_back({nextNumber_++, kind, write});
    if (!thread_.joinable()) thread_ = std::thread([this] { retry(); });
    changed_.notifyAll();
}

void DeferredWrites::cancel(std::optional<Kind> kind) {
    {
        const common::LockGuard lock(mutex_);
        pending_.erase(std::remove_if(pending_.begin(), pending_.end(),
                                      [kind](const Pending& pending) { return !kind || pending.kind == *kind; }),
                       pending_.end());
    }
    const common::LockGuard noAttempt(attempt_);
}

// One write per interval: a service that has just returned may deliver a request that cancels the others.
void DeferredWrites::retry() {
    common::UniqueLock lock(mutex_);
    for (;;) {
        changed_.wait(mutex_, [this]() REQUIRES(mutex_) { return ending_ || !pending_.empty(); });
        const bool last = changed_.waitFor(mutex_, retryInterval, [this]() REQUIRES(mutex_) { return ending_; });
        lock.unlock();
        while (tryFirst() && last) {  // on shutdown, all of them
        }
        lock.lock();
        if (last) return;
    }
}

// False if nothing is pending or the write must be retried.
bool DeferredWrites::tryFirst() {
    const common::LockGuard attempt(attempt_);
    Pending first{};
    try {
        {
            const common::LockGuard lock(mutex_);
            if (pending_.empty()) return false;
            first = pending_.front();
        }
        if (!execute(first.write)) return false;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Deferred property write failed: " << e.what() << std::endl;
    }
    const common::LockGuard lock(mutex_);
    if (!pending_.empty() && pending_.front().number == first.number)
        pending_.pop_front();  // otherwise cancelled meanwhile
    return true;
}

}  // namespace zav
