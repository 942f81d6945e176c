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

// False when it must be made again.
bool DeferredWrites::carryOut(const Write& write) {
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
        mustWait = !waiting_.empty();
    }
    if (mustWait || !carryOut(write)) keep(kind, write);
}

void DeferredWrites::keep(Kind kind, const Write& write) {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push_back({nextNumber_++, kind, write});
    if (!thread_.joinable()) thread_ = std::thread([this] { retry(); });
    changed_.notify_all();
}

void DeferredWrites::cancel() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.clear();
    }
    waitForAttempt();
}

void DeferredWrites::cancel(Kind kind) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto isOfKind = [kind](const Owed& owed) { return owed.kind == kind; };
        waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), isOfKind), waiting_.end());
    }
    waitForAttempt();
}

void DeferredWrites::waitForAttempt() { const std::lock_guard<std::mutex> attempt(attempt_); }

// One write each time: the service that is back may bring a request that makes the next ones stale.
void DeferredWrites::retry() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        const bool last = changed_.wait_for(lock, retryInterval, [this] { return ending_; });
        lock.unlock();
        while (tryFirst() && last) {  // at the end all of them: the service may be back by now
        }
        lock.lock();
        if (last) return;
    }
}

// False when there was none, or it must be made again.
bool DeferredWrites::tryFirst() {
    const std::lock_guard<std::mutex> attempt(attempt_);
    Owed first{};
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (waiting_.empty()) return false;
        first = waiting_.front();
    }
    try {
        if (!carryOut(first.write)) return false;
    } catch (const std::exception& e) {
        dbg::Debug::error() << "Could not make up for a property write: " << e.what() << std::endl;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!waiting_.empty() && waiting_.front().number == first.number) waiting_.pop_front();  // else it was cancelled
    return true;
}

}  // namespace zav
