// The clock of the preloaded process, and the C functions that read it. The file in PHONE_CLOCK controls the clock;
// without it, every function behaves like the C library's.
#include "Clock.h"

#include "ClockState.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace lab {
namespace {

constexpr std::int64_t LongestSlice = 20 * Millisecond;

// Set once by the constructor below, before the process has threads.
const ClockState* state = nullptr;

std::int64_t machineNow(clockid_t clock) {
    timespec time{};
    Real::functions().clockGettime(clock, &time);
    return fromTimespec(time);
}

bool isDate(clockid_t clock) { return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE || clock == CLOCK_TAI; }

// Removes this library from the environment, so that programs that the daemon starts use the machine's time.
void forgetPreload() {
    unsetenv("PHONE_CLOCK");
    const char* list = getenv("LD_PRELOAD");
    if (list == nullptr) return;
    std::string kept;
    std::string rest = list;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find_first_of(": "), rest.size());
        const std::string one = rest.substr(0, end);
        rest.erase(0, end + 1);
        if (!one.empty() && one.find("phone-clock.so") == std::string::npos) kept += (kept.empty() ? "" : ":") + one;
    }
    if (kept.empty())
        unsetenv("LD_PRELOAD");
    else
        setenv("LD_PRELOAD", kept.c_str(), 1);
}

__attribute__((constructor)) void openClock() {
    if (const char* path = getenv("PHONE_CLOCK")) {
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        if (file >= 0) {
            void* memory = mmap(nullptr, sizeof(ClockState), PROT_READ, MAP_SHARED, file, 0);
            close(file);
            if (memory != MAP_FAILED && static_cast<ClockState*>(memory)->magic == ClockState::Magic)
                state = static_cast<ClockState*>(memory);
        }
        if (state == nullptr) {
            constexpr char message[] = "phone-clock.so: the file in PHONE_CLOCK is not a clock\n";
            if (write(STDERR_FILENO, message, sizeof message - 1) < 0) _exit(127);
            _exit(127);
        }
    }
    forgetPreload();
}

}  // namespace

void* realFunction(const char* name, const char* version) {
    void* found = version != nullptr ? dlvsym(RTLD_NEXT, name, version) : nullptr;
    return found != nullptr ? found : dlsym(RTLD_NEXT, name);
}

const Real& Real::functions() {
    static const Real real{
        reinterpret_cast<int (*)(clockid_t, timespec*)>(realFunction("clock_gettime")),
        reinterpret_cast<int (*)(const timespec*, timespec*)>(realFunction("nanosleep")),
    };
    return real;
}

bool isShifted(clockid_t clock) {
    return isDate(clock) || clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_BOOTTIME;
}

std::int64_t phoneNow(clockid_t clock) {
    if (state == nullptr || !isShifted(clock)) return machineNow(clock);
    const ClockReading reading = ClockReading::of(*state);
    const std::int64_t real = machineNow(CLOCK_MONOTONIC);
    return isDate(clock) ? reading.wall(machineNow(CLOCK_REALTIME), real) : reading.monotonic(real);
}

std::int64_t slice(clockid_t clock, std::int64_t deadline) {
    const std::int64_t left = deadline - phoneNow(clock);
    if (left <= 0) return 0;
    const double factor = state != nullptr && isShifted(clock) ? ClockReading::of(*state).factor : 1.0;
    const double machine = static_cast<double>(left) / factor;
    if (machine >= static_cast<double>(LongestSlice)) return LongestSlice;
    return std::max<std::int64_t>(static_cast<std::int64_t>(machine), 1000);
}

}  // namespace lab

EXPORT int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (!lab::isShifted(clock)) return lab::Real::functions().clockGettime(clock, time);
    *time = lab::toTimespec(lab::phoneNow(clock));
    return 0;
}

EXPORT int gettimeofday(timeval* __restrict time, void* __restrict zone) noexcept {
    if (zone != nullptr) std::memset(zone, 0, sizeof(struct timezone));
    const std::int64_t now = lab::phoneNow(CLOCK_REALTIME);
    *time = {now / lab::Second, now % lab::Second / 1000};
    return 0;
}

EXPORT time_t time(time_t* result) noexcept {
    const time_t now = lab::phoneNow(CLOCK_REALTIME) / lab::Second;
    if (result != nullptr) *result = now;
    return now;
}

EXPORT int timespec_get(timespec* time, int base) noexcept {
    if (base != TIME_UTC) return 0;
    *time = lab::toTimespec(lab::phoneNow(CLOCK_REALTIME));
    return base;
}
