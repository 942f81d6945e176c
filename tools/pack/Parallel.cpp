#include "pack/Parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <vector>

#include "common/ThreadSafety.h"

namespace pack {

namespace {

// Beyond this, threads wait for the disk and for each other.
constexpr unsigned maxThreads = 8;

class Work {
 public:
    Work(std::size_t count, const std::function<void(std::size_t)>& work) : count_(count), work_(work) {}

    void run(const std::function<void(std::size_t)>& progress) {
        for (std::size_t index = next_.fetch_add(1); index < count_; index = next_.fetch_add(1)) {
            try {
                work_(index);
                const std::size_t done = done_.fetch_add(1) + 1;
                if (progress) progress(done);
            } catch (...) {
                next_ = count_;
                const common::LockGuard<common::Mutex> lock(mutex_);
                if (!error_) error_ = std::current_exception();
                return;
            }
        }
    }

    void throwIfFailed() {
        const common::LockGuard<common::Mutex> lock(mutex_);
        if (error_) std::rethrow_exception(error_);
    }

 private:
    const std::size_t count_;
    const std::function<void(std::size_t)>& work_;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> done_{0};
    common::Mutex mutex_;
    std::exception_ptr error_ GUARDED_BY(mutex_);
};

}  // namespace

void forEach(std::size_t count, const std::function<void(std::size_t)>& work,
             const std::function<void(std::size_t)>& progress, Bound bound) {
    Work all(count, work);
    const std::size_t wanted =
        bound == Bound::disk ? maxThreads : std::clamp(std::thread::hardware_concurrency(), 1U, maxThreads);
    std::vector<std::thread> threads;
    try {
        while (threads.size() + 1 < std::min(wanted, count)) threads.emplace_back([&all] { all.run(nullptr); });
    } catch (const std::system_error&) {
        // No thread can be started now; those that there are do the work.
    }
    all.run(progress);
    for (std::thread& thread : threads) thread.join();
    all.throwIfFailed();
    if (progress) progress(count);
}

}  // namespace pack
