// A preload library that disturbs the schedule: around locks, condition variables, the starts and ends of threads, and
// system calls that threads meet at, a thread now and then yields or sleeps for some microseconds, so that the thread
// sanitizer sees orders of events which a quiet machine never shows.
//
// NOISE_SEED decides where; without it nothing happens. Children start without it.
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr std::uint64_t YieldOneIn = 4;
constexpr std::uint64_t SleepOneIn = 32;
constexpr std::uint64_t LongSleepOneIn = 1024;
constexpr long ShortNanoseconds = 100'000;
constexpr long LongNanoseconds = 3'000'000;

std::uint64_t seed = 0;
std::atomic<std::uint64_t> threads{0};
// Of the initial-exec model: another one allocates at a thread's first use, inside of what calls us.
__attribute__((tls_model("initial-exec"))) thread_local std::uint64_t state = 0;

__attribute__((constructor)) void begin() {
    if (const char* text = getenv("NOISE_SEED")) seed = std::strtoull(text, nullptr, 10) * 2 + 1;
    unsetenv("NOISE_SEED");
}

// Numbers of the thread's own, by xorshift.
std::uint64_t next() {
    if (state == 0) state = (seed + threads.fetch_add(1, std::memory_order_relaxed)) * 0x9E3779B97F4A7C15ULL | 1;
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state >> 11;
}

// System calls, as the functions of the C library are replaced by a sanitizer and by the lab's clock.
void disturb() {
    if (seed == 0) return;
    const std::uint64_t drawn = next();
    const int error = errno;
    if (drawn % SleepOneIn == 0) {
        const long most = drawn / SleepOneIn % (LongSleepOneIn / SleepOneIn) == 0 ? LongNanoseconds : ShortNanoseconds;
        const timespec length{0, static_cast<long>(next() % static_cast<std::uint64_t>(most))};
        syscall(SYS_nanosleep, &length, nullptr);
    } else if (drawn % YieldOneIn == 0) {
        syscall(SYS_sched_yield);
    }
    errno = error;
}

template <typename Function>
Function following(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The function that follows in the order of the libraries, with noise before and after it.
#define DISTURBED(name, ...)                                          \
    static const auto function = following<decltype(&(name))>(#name); \
    disturb();                                                        \
    const auto result = function(__VA_ARGS__);                        \
    disturb();                                                        \
    return result

EXPORT int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept { DISTURBED(pthread_mutex_lock, mutex); }

// Ends with a jump, so that the sanitizer sees who unlocks: it has suppressions for libraries.
EXPORT int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static const auto function = following<decltype(&pthread_mutex_unlock)>("pthread_mutex_unlock");
    disturb();
    return function(mutex);
}

EXPORT int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    DISTURBED(pthread_cond_wait, condition, mutex);
}

EXPORT int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* end) {
    DISTURBED(pthread_cond_timedwait, condition, mutex, end);
}

EXPORT int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* end) {
    DISTURBED(pthread_cond_clockwait, condition, mutex, clock, end);
}

EXPORT int pthread_cond_signal(pthread_cond_t* condition) noexcept { DISTURBED(pthread_cond_signal, condition); }

EXPORT int pthread_cond_broadcast(pthread_cond_t* condition) noexcept { DISTURBED(pthread_cond_broadcast, condition); }

EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) noexcept {
    static const auto create = following<decltype(&pthread_create)>("pthread_create");
    disturb();
    const int result = create(thread, attributes, function, argument);
    disturb();
    return result;
}

EXPORT int pthread_join(pthread_t thread, void** value) { DISTURBED(pthread_join, thread, value); }

EXPORT ssize_t write(int file, const void* data, size_t size) { DISTURBED(write, file, data, size); }

EXPORT int poll(pollfd* files, nfds_t count, int milliseconds) { DISTURBED(poll, files, count, milliseconds); }

EXPORT int epoll_wait(int file, epoll_event* events, int most, int milliseconds) {
    DISTURBED(epoll_wait, file, events, most, milliseconds);
}
