#include "Core/ProvisioningWatchdog/DeferredWrites.h"

#include <algorithm>
#include <chrono>

#include "debug/Debug.h"
#include "propertyapi/PropertyExceptions.h"

namespace zav {

namespace {

constexpr std::chrono::milliseconds retryInterval{500};

}  // namespace

DeferredWrites::~DeferredWrites() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    changed_.notify_all();
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
    }
    return true;
}

void DeferredWrites::write(Kind kind, const Write& write) {
    bool mustWait = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        mustWait = !pending_.empty();
    }
    if (mustWait || !execute(write)) keep(kind, write);
}

void DeferredWrites::keep(Kind kind, const Write& write) {
    const std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back({nextNumber_++, kind, write});
    if (!thread_.joinable()) thread_ = std::thread([this] { retry(); });
    changed_.notify_all();
}

void DeferredWrites::cancel(std::optional<Kind> kind) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto isStale = [kind](const Pending& pending) { return !kind || pending.kind == *kind; };
        pending_.erase(std::remove_if(pending_.begin(), pending_.end(), isStale), pending_.end());
    }
    const std::lock_guard<std::mutex> noAttempt(attempt_);
}

// One write per interval: a service that has just returned may deliver a request that cancels the others.
void DeferredWrites::retry() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return ending_ || !pending_.empty(); });
        const bool last = changed_.wait_for(lock, retryInterval, [this] { return ending_; });
        lock.unlock();
        while (tryFirst() && last) {  // on shutdown, all of them
        }
        lock.lock();
        if (last) return;
    }
}

// False if nothing is pending or the write must be retried.
bool DeferredWrites::tryFirst() {
    const std::lock_guard<std::mutex> attempt(attempt_);
    Pending first{};
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (pending_.empty()) return false;
        first = pending_.front();
    }
    try {
        if (!execute(first.write)) return false;
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Deferred property write failed: " << e.what() << std::endl;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!pending_.empty() && pending_.front().number == first.number)
        pending_.pop_front();  // otherwise cancelled meanwhile
    return true;
}

}  // namespace zav
