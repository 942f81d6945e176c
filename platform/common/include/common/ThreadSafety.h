// Locks that the compiler checks. With clang's -Wthread-safety a member that is GUARDED_BY a mutex can be touched only
// where that mutex is held, and a function that REQUIRES it can be called only there. The standard mutex carries no
// such annotations, so these are thin owners of it: each operation is the standard one, inlined. Other compilers see
// no annotations at all. Constructors and destructors are not checked.
//
// Declare members as `int count_ GUARDED_BY(mutex_) = 0;`, functions as `void add() REQUIRES(mutex_);`, and predicates
// of a wait as `[this]() REQUIRES(mutex_) { return count_ > 0; }`.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZAV_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define ZAV_THREAD_ANNOTATION(attribute)
#endif

// NOLINTBEGIN(cppcoreguidelines-macro-usage): attributes cannot be named in any other way
#define CAPABILITY(name) ZAV_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY ZAV_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(mutex) ZAV_THREAD_ANNOTATION(guarded_by(mutex))
#define PT_GUARDED_BY(mutex) ZAV_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define REQUIRES(...) ZAV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZAV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZAV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZAV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ZAV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(mutex) ZAV_THREAD_ANNOTATION(assert_capability(mutex))
#define NO_THREAD_SAFETY_ANALYSIS ZAV_THREAD_ANNOTATION(no_thread_safety_analysis)
// NOLINTEND(cppcoreguidelines-macro-usage)

namespace common {

class CAPABILITY("mutex") Mutex {
 public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    bool tryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    /// Tells the analysis that the caller holds it, where calls come through a C library that hides that. Does nothing.
    void assertHeld() const ASSERT_CAPABILITY(this) {}

 private:
    friend class ConditionVariable;
    std::mutex mutex_;
};

/// A mutex that its holder can lock again.
class CAPABILITY("mutex") RecursiveMutex {
 public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

 private:
    std::recursive_mutex mutex_;
};

template <typename Lockable>
class SCOPED_CAPABILITY LockGuard {
 public:
    explicit LockGuard(Lockable& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;
    ~LockGuard() RELEASE() { mutex_.unlock(); }

 private:
    Lockable& mutex_;
};

/// A LockGuard that can be unlocked early and locked again.
class SCOPED_CAPABILITY UniqueLock {
 public:
    explicit UniqueLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;
    ~UniqueLock() RELEASE() {
        if (held_) mutex_.unlock();
    }

    void lock() ACQUIRE() {
        mutex_.lock();
        held_ = true;
    }
    void unlock() RELEASE() {
        held_ = false;
        mutex_.unlock();
    }

 private:
    Mutex& mutex_;
    bool held_ = true;
};

/// Unlocks a mutex that is held, and locks it again at the end of the scope, also when that ends by an exception.
class SCOPED_CAPABILITY UnlockGuard {
 public:
    explicit UnlockGuard(Mutex& mutex) RELEASE(mutex) : mutex_(mutex) { mutex_.unlock(); }
    UnlockGuard(const UnlockGuard&) = delete;
    UnlockGuard& operator=(const UnlockGuard&) = delete;
    ~UnlockGuard() RELEASE() { mutex_.lock(); }

 private:
    Mutex& mutex_;
};

/// Waits take the mutex itself, which the caller holds, so that any function that REQUIRES it can wait.
class ConditionVariable {
 public:
    void notifyOne() { condition_.notify_one(); }
    void notifyAll() { condition_.notify_all(); }

    void wait(Mutex& mutex) REQUIRES(mutex) {
        const Borrowed borrowed(mutex.mutex_);
        condition_.wait(borrowed.lock);
    }
    template <typename Clock, typename Duration>
    std::cv_status waitUntil(Mutex& mutex, std::chrono::time_point<Clock, Duration> time) REQUIRES(mutex) {
        const Borrowed borrowed(mutex.mutex_);
        return condition_.wait_until(borrowed.lock, time);
    }
    template <typename Rep, typename Period>
    std::cv_status waitFor(Mutex& mutex, std::chrono::duration<Rep, Period> duration) REQUIRES(mutex) {
        return waitUntil(mutex, std::chrono::steady_clock::now() + duration);
    }

    // The predicate is called with the mutex held, which the analysis cannot see through a template.

    template <typename Predicate>
    void wait(Mutex& mutex, Predicate predicate) REQUIRES(mutex) NO_THREAD_SAFETY_ANALYSIS {
        const Borrowed borrowed(mutex.mutex_);
        condition_.wait(borrowed.lock, predicate);
    }
    /// Whether the predicate holds at the end.
    template <typename Clock, typename Duration, typename Predicate>
    bool waitUntil(Mutex& mutex, std::chrono::time_point<Clock, Duration> time, Predicate predicate)
        REQUIRES(mutex) NO_THREAD_SAFETY_ANALYSIS {
        const Borrowed borrowed(mutex.mutex_);
        return condition_.wait_until(borrowed.lock, time, predicate);
    }
    template <typename Rep, typename Period, typename Predicate>
    bool waitFor(Mutex& mutex, std::chrono::duration<Rep, Period> duration, Predicate predicate) REQUIRES(mutex) {
        return waitUntil(mutex, std::chrono::steady_clock::now() + duration, predicate);
    }

 private:
    /// Hands a lock that the caller holds to the standard library, and takes it back as it was.
    struct Borrowed {
        explicit Borrowed(std::mutex& mutex) : lock(mutex, std::adopt_lock) {}
        Borrowed(const Borrowed&) = delete;
        Borrowed& operator=(const Borrowed&) = delete;
        ~Borrowed() { lock.release(); }
        mutable std::unique_lock<std::mutex> lock;
    };

    std::condition_variable condition_;
};

}  // namespace common
