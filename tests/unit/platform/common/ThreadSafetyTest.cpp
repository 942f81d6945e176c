#include "common/ThreadSafety.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// Whether another thread finds the mutex free.
bool isFree(common::Mutex& mutex) {
    return std::async(std::launch::async,
                      [&mutex] {
                          const bool locked = mutex.tryLock();
                          if (locked) mutex.unlock();
                          return locked;
                      })
        .get();
}

TEST(LockGuard, HoldsTheMutexForItsScope) {
    common::Mutex mutex;
    {
        const common::LockGuard lock(mutex);
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(LockGuard, LocksARecursiveMutexAgain) {
    common::RecursiveMutex mutex;
    int locked = 0;
    const auto lockTwice = [&](const auto& self) -> void {
        const common::LockGuard lock(mutex);
        if (++locked < 2) self(self);
    };
    lockTwice(lockTwice);
    EXPECT_EQ(locked, 2);
}

TEST(UniqueLock, CanBeUnlockedEarlyAndLockedAgain) {
    common::Mutex mutex;
    {
        common::UniqueLock lock(mutex);
        EXPECT_FALSE(isFree(mutex));
        lock.unlock();
        EXPECT_TRUE(isFree(mutex));
        lock.lock();
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
    {
        common::UniqueLock lock(mutex);
        lock.unlock();
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(UnlockGuard, LocksAgainAlsoAfterAnException) {
    common::Mutex mutex;
    const common::LockGuard lock(mutex);
    try {
        const common::UnlockGuard unlocked(mutex);
        EXPECT_TRUE(isFree(mutex));
        throw std::runtime_error("out of it");
    } catch (const std::runtime_error&) {
        EXPECT_FALSE(isFree(mutex));
    }
}

TEST(ConditionVariable, WaitsWithoutTheMutexAndReturnsWithIt) {
    common::Mutex mutex;
    common::ConditionVariable changed;
    bool ready = false;
    std::future<void> other;
    {
        const common::LockGuard lock(mutex);
        other = std::async(std::launch::async, [&] {
            const common::LockGuard theirs(mutex);  // free only while the other one waits
            ready = true;
            changed.notifyAll();
        });
        changed.wait(mutex, [&] { return ready; });
        EXPECT_TRUE(ready);
        EXPECT_FALSE(isFree(mutex));
    }
    other.wait();
    EXPECT_TRUE(isFree(mutex));
}

TEST(ConditionVariable, SaysWhetherItWaitedInVain) {
    common::Mutex mutex;
    common::ConditionVariable changed;
    const common::LockGuard lock(mutex);
    const auto begin = steady_clock::now();
    EXPECT_FALSE(changed.waitFor(mutex, milliseconds(20), [] { return false; }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(20));
    EXPECT_TRUE(changed.waitUntil(mutex, steady_clock::now() + seconds(30), [] { return true; }));
    EXPECT_EQ(changed.waitFor(mutex, milliseconds(-1)), std::cv_status::timeout);
    EXPECT_EQ(changed.waitUntil(mutex, steady_clock::now() - seconds(1)), std::cv_status::timeout);
    EXPECT_FALSE(isFree(mutex));
}

}  // namespace
