#pragma once

#include <cstdint>
#include <ctime>

namespace lab {

constexpr std::int64_t Millisecond = 1'000'000;
constexpr std::int64_t Second = 1'000'000'000;

// The C library's own functions, found behind this one. Resolved at first use: other constructors run before ours.
struct Real {
    int (*clockGettime)(clockid_t, timespec*);
    int (*nanosleep)(const timespec*, timespec*);
    static const Real& functions();
};

// Address of the C library's function; `version` names the one that programs link today where there are several.
void* realFunction(const char* name, const char* version = nullptr);

// What the phone's clock shows. A clock that is neither a date nor a running time (CPU times) is the machine's.
std::int64_t phoneNow(clockid_t clock);
bool isShifted(clockid_t clock);

// One slice of a wait in machine time: what is left until `deadline` at the present factor, at most 20 ms so that a
// change of factor or a jump is noticed. 0 when the deadline has come.
std::int64_t slice(clockid_t clock, std::int64_t deadline);

inline timespec toTimespec(std::int64_t time) { return {time / Second, time % Second}; }

// Saturating: "for ever" is written as a huge number of seconds by some.
inline std::int64_t fromTimespec(const timespec& time) {
    constexpr std::int64_t Most = INT64_MAX / Second / 4;
    return (time.tv_sec > Most ? Most : time.tv_sec) * Second + time.tv_nsec;
}

}  // namespace lab
