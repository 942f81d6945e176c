#include "Core/ProvisioningWatchdog/DeferredWrites.h"

#include <chrono>

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
    } catch (...) {  // refused: it would be refused again
    }
    return true;
}

void DeferredWrites::write(const Write& write) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!waiting_.empty()) {
            waiting_.push_back(write);
            return;
        }
    }
    if (carryOut(write)) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.push_back(write);
    if (!thread_.joinable()) thread_ = std::thread([this] { retry(); });
    changed_.notify_all();
}

void DeferredWrites::cancel() {
    const std::lock_guard<std::mutex> attempt(attempt_);
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_.clear();
}

void DeferredWrites::retry() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!ending_) {
        if (waiting_.empty()) {
            changed_.wait(lock);
            continue;
        }
        changed_.wait_for(lock, retryInterval, [this] { return ending_; });
        if (ending_) break;
        lock.unlock();
        {
            const std::lock_guard<std::mutex> attempt(attempt_);
            for (;;) {
                lock.lock();
                const Write next = waiting_.empty() ? Write() : waiting_.front();
                lock.unlock();
                if (!next || !carryOut(next)) break;
                lock.lock();
                if (!waiting_.empty()) waiting_.pop_front();
                lock.unlock();
            }
        }
        lock.lock();
    }
}

}  // namespace zav
