// Replaces every wait that has a time-out: it runs in slices of machine time, and each slice is compared with the
// phone's clock. Callers do not notice the slices: a wait returns for the usual reasons only, including EINTR.
#include "Clock.h"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using lab::fromTimespec;
using lab::Millisecond;
using lab::phoneNow;
using lab::Real;
using lab::realFunction;
using lab::slice;
using lab::toTimespec;

constexpr std::int64_t Endless = INT64_MAX / 4;

template <typename Function>
Function real(const char* name, const char* version = nullptr) {
    return reinterpret_cast<Function>(realFunction(name, version));
}

// A signal between two slices would be lost, because the thread is not waiting then and cannot check the caller's
// condition. So signals are counted per condition variable, and a wait returns if the count changed since it began. Two
// variables may share a counter, which causes an occasional spurious wake-up.
std::array<std::atomic<unsigned>, 1 << 14> signals{};

std::atomic<unsigned>& signalsOf(const pthread_cond_t* condition) {
    const auto address = reinterpret_cast<std::uintptr_t>(condition);
    return signals[((address >> 4) * 0x9E3779B97F4A7C15ULL) >> 50];
}

int waitOnCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, std::int64_t deadline) {
    using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
    static const Wait realWait = real<Wait>("pthread_cond_clockwait");
    const std::atomic<unsigned>& count = signalsOf(condition);
    const unsigned before = count.load();
    for (;;) {
        const std::int64_t length = slice(clock, deadline);
        timespec end{};
        Real::functions().clockGettime(CLOCK_MONOTONIC, &end);
        end = toTimespec(fromTimespec(end) + length);
        const int result = realWait(condition, mutex, CLOCK_MONOTONIC, &end);
        if (result != ETIMEDOUT) return result;
        if (count.load() != before) return 0;
        if (length == 0) return ETIMEDOUT;
    }
}

int sleepUntil(clockid_t clock, std::int64_t deadline, timespec* left) {
    while (const std::int64_t length = slice(clock, deadline)) {
        const timespec time = toTimespec(length);
        if (Real::functions().nanosleep(&time, nullptr) != 0) {
            const int error = errno;
            if (left != nullptr) *left = toTimespec(std::max<std::int64_t>(deadline - phoneNow(clock), 0));
            return error;
        }
    }
    return 0;
}

// Repeats `wait(length of the slice)` until it returns a result or an error, or the time is up.
template <typename Wait>
int waitSliced(std::int64_t duration, Wait wait) {
    if (duration == 0) return wait(0);
    const std::int64_t deadline = phoneNow(CLOCK_MONOTONIC) + duration;
    for (;;) {
        const std::int64_t length = slice(CLOCK_MONOTONIC, deadline);
        const int result = wait(length);
        if (result != 0 || length == 0) return result;
    }
}

int pollSliced(pollfd* descriptors, nfds_t count, std::int64_t duration, const sigset_t* mask) {
    using Ppoll = int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*);
    static const Ppoll realPpoll = real<Ppoll>("ppoll");
    return waitSliced(duration, [&](std::int64_t length) {
        const timespec time = toTimespec(length);
        return realPpoll(descriptors, count, &time, mask);
    });
}

int ppollAny(pollfd* descriptors, nfds_t count, const timespec* time, const sigset_t* mask) {
    using Ppoll = int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*);
    static const Ppoll realPpoll = real<Ppoll>("ppoll");
    return time == nullptr ? realPpoll(descriptors, count, nullptr, mask)
                           : pollSliced(descriptors, count, fromTimespec(*time), mask);
}

int pollAny(pollfd* descriptors, nfds_t count, int milliseconds) {
    const timespec time = toTimespec(milliseconds * Millisecond);
    return ppollAny(descriptors, count, milliseconds < 0 ? nullptr : &time, nullptr);
}

int pselectAny(int count, fd_set* read, fd_set* write, fd_set* except, const timespec* time, const sigset_t* mask) {
    using Pselect = int (*)(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*);
    static const Pselect realPselect = real<Pselect>("pselect");
    if (time == nullptr) return realPselect(count, read, write, except, nullptr, mask);
    const std::array<fd_set*, 3> sets{read, write, except};
    std::array<fd_set, 3> asked{};
    for (std::size_t i = 0; i < sets.size(); ++i)
        if (sets[i] != nullptr) asked[i] = *sets[i];
    return waitSliced(fromTimespec(*time), [&](std::int64_t length) {
        for (std::size_t i = 0; i < sets.size(); ++i)
            if (sets[i] != nullptr) *sets[i] = asked[i];
        const timespec part = toTimespec(length);
        return realPselect(count, read, write, except, &part, mask);
    });
}

// When each timer that runs ends on the phone's clock, by descriptor; 0 if it does not run.
std::array<std::atomic<std::int64_t>, 1024> timerEnds{};
std::atomic<std::size_t> timerCount{0};  // of the elements that are in use

int setRealTimer(int timer, const itimerspec& time, itimerspec* before) {
    using SetTime = int (*)(int, int, const itimerspec*, itimerspec*);
    static const SetTime realSetTime = real<SetTime>("timerfd_settime");
    return realSetTime(timer, 0, &time, before);
}

// Lets the timers fire whose time has come on the phone's clock. Returns when the next one ends.
std::int64_t fireTimers() {
    const std::int64_t now = phoneNow(CLOCK_MONOTONIC);
    std::int64_t next = Endless;
    for (std::size_t timer = 0; timer < timerCount; ++timer) {
        std::int64_t end = timerEnds[timer];
        if (end == 0) continue;
        if (end > now)
            next = std::min(next, end);
        else if (timerEnds[timer].compare_exchange_strong(end, 0))
            setRealTimer(static_cast<int>(timer), {{0, 0}, {0, 1}}, nullptr);
    }
    return next;
}

}  // namespace

EXPORT int timerfd_settime(int timer, int flags, const itimerspec* time, itimerspec* before) noexcept {
    const auto index = static_cast<std::size_t>(timer);
    const bool repeats = time->it_interval.tv_sec != 0 || time->it_interval.tv_nsec != 0;
    if (flags != 0 || repeats || index >= timerEnds.size()) {
        errno = ENOTSUP;  // the daemon needs no other timers
        return -1;
    }
    const int result = setRealTimer(timer, {}, before);
    if (result != 0) return result;
    const std::int64_t left = fromTimespec(time->it_value);
    timerEnds[index] = left == 0 ? 0 : phoneNow(CLOCK_MONOTONIC) + left;
    std::size_t count = timerCount;
    while (count <= index && !timerCount.compare_exchange_weak(count, index + 1)) {
    }
    return 0;
}

EXPORT int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    using Signal = int (*)(pthread_cond_t*);
    static const Signal realSignal = real<Signal>("pthread_cond_signal", "GLIBC_2.3.2");
    ++signalsOf(condition);
    return realSignal(condition);
}

EXPORT int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    using Broadcast = int (*)(pthread_cond_t*);
    static const Broadcast realBroadcast = real<Broadcast>("pthread_cond_broadcast", "GLIBC_2.3.2");
    ++signalsOf(condition);
    return realBroadcast(condition);
}

EXPORT int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    return waitOnCondition(condition, mutex, clock, fromTimespec(*deadline));
}

EXPORT int pthread_cond_timedwait(pthread_cond_t* __restrict condition, pthread_mutex_t* __restrict mutex,
                                  const timespec* __restrict deadline) {
    // glibc keeps the clock of the condition variable in this bit.
    const bool monotonic = (condition->__data.__wrefs & 2U) != 0;
    return waitOnCondition(condition, mutex, monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME, fromTimespec(*deadline));
}

EXPORT int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    const bool absolute = (flags & TIMER_ABSTIME) != 0;
    const std::int64_t deadline = fromTimespec(*time) + (absolute ? 0 : phoneNow(clock));
    return sleepUntil(clock, deadline, absolute ? nullptr : left);
}

EXPORT int nanosleep(const timespec* time, timespec* left) {
    const int error = sleepUntil(CLOCK_MONOTONIC, phoneNow(CLOCK_MONOTONIC) + fromTimespec(*time), left);
    if (error == 0) return 0;
    errno = error;
    return -1;
}

EXPORT int usleep(useconds_t microseconds) {
    const timespec time = toTimespec(static_cast<std::int64_t>(microseconds) * 1000);
    return nanosleep(&time, nullptr);
}

EXPORT unsigned sleep(unsigned seconds) {
    const timespec time{static_cast<time_t>(seconds), 0};
    timespec left{};
    return nanosleep(&time, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec + (left.tv_nsec > 0 ? 1 : 0));
}

EXPORT int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    return pollAny(descriptors, count, milliseconds);
}

EXPORT int ppoll(pollfd* descriptors, nfds_t count, const timespec* time, const sigset_t* mask) {
    return ppollAny(descriptors, count, time, mask);
}

// Code built with fortified headers calls these two instead.
EXPORT int __poll_chk(pollfd* descriptors, nfds_t count, int milliseconds, size_t) {
    return pollAny(descriptors, count, milliseconds);
}

EXPORT int __ppoll_chk(pollfd* descriptors, nfds_t count, const timespec* time, const sigset_t* mask, size_t) {
    return ppollAny(descriptors, count, time, mask);
}

EXPORT int pselect(int count, fd_set* __restrict read, fd_set* __restrict write, fd_set* __restrict except,
                   const timespec* __restrict time, const sigset_t* __restrict mask) {
    return pselectAny(count, read, write, except, time, mask);
}

EXPORT int select(int count, fd_set* __restrict read, fd_set* __restrict write, fd_set* __restrict except,
                  timeval* __restrict time) {
    if (time == nullptr) return pselectAny(count, read, write, except, nullptr, nullptr);
    const timespec converted{time->tv_sec, time->tv_usec * 1000};
    return pselectAny(count, read, write, except, &converted, nullptr);
}

EXPORT int epoll_pwait(int epoll, epoll_event* events, int most, int milliseconds, const sigset_t* mask) {
    using EpollPwait = int (*)(int, epoll_event*, int, int, const sigset_t*);
    static const EpollPwait realWait = real<EpollPwait>("epoll_pwait");
    const std::int64_t duration = milliseconds < 0 ? Endless : milliseconds * Millisecond;
    return waitSliced(duration, [&](std::int64_t length) {
        length = std::min(length, slice(CLOCK_MONOTONIC, fireTimers()));
        const auto rounded = static_cast<int>((length + Millisecond - 1) / Millisecond);
        return realWait(epoll, events, most, rounded, mask);
    });
}

EXPORT int epoll_wait(int epoll, epoll_event* events, int most, int milliseconds) {
    return epoll_pwait(epoll, events, most, milliseconds, nullptr);
}
