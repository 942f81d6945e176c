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
    waiting_.push_back({kind, write});
    if (!thread_.joinable()) thread_ = std::thread([this] { retry(); });
    changed_.notify_all();
}

void DeferredWrites::cancel() {
    const std::lock_guard<std::mutex> attempt(attempt_);
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.clear();
}

void DeferredWrites::cancel(Kind kind) {
    const std::lock_guard<std::mutex> attempt(attempt_);
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto isOfKind = [kind](const Owed& owed) { return owed.kind == kind; };
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), isOfKind), waiting_.end());
}

void DeferredWrites::retry() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (bool last = false; !last;) {
        changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        last = changed_.wait_for(lock, retryInterval, [this] { return ending_; });
        lock.unlock();
        tryWaiting();  // once more at the end: the service may be back by now
        lock.lock();
    }
}

// In their order, up to the first that must wait on.
void DeferredWrites::tryWaiting() {
    const std::lock_guard<std::mutex> attempt(attempt_);
    for (;;) {
        Write next;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (waiting_.empty()) return;
            next = waiting_.front().write;
        }
        try {
            if (!carryOut(next)) return;
        } catch (const std::exception& e) {
            dbg::Debug::error() << "Could not make up for a property write: " << e.what() << std::endl;
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.pop_front();
    }
}

}  // namespace zav
