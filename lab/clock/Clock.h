#pragma once

#include <cstdint>
#include <ctime>

namespace lab {

constexpr std::int64_t Millisecond = 1'000'000;
constexpr std::int64_t Second = 1'000'000'000;

// The C library's own functions. Resolved at first use, because constructors of other libraries run before ours.
struct Real {
    int (*clockGettime)(clockid_t, timespec*);
    int (*nanosleep)(const timespec*, timespec*);
    static const Real& functions();
};

// Address of the C library's function; `version` selects the current one if the library has several.
void* realFunction(const char* name, const char* version = nullptr);

// Time on the phone's clock. Clocks that are not shifted, such as CPU times, show the machine's time.
std::int64_t phoneNow(clockid_t clock);
bool isShifted(clockid_t clock);

// Length of the next slice of a wait, in machine time: the time until `deadline` at the current factor, at most 20 ms
// so that the wait notices a jump or a new factor. 0 once the deadline has passed.
std::int64_t slice(clockid_t clock, std::int64_t deadline);

inline timespec toTimespec(std::int64_t time) { return {time / Second, time % Second}; }

// Saturates, because some callers wait "forever" with a huge number of seconds.
inline std::int64_t fromTimespec(const timespec& time) {
    constexpr std::int64_t Most = INT64_MAX / Second / 4;
    return (time.tv_sec > Most ? Most : time.tv_sec) * Second + time.tv_nsec;
}

}  // namespace lab
