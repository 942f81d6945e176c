// phone-clock FILE create|show|factor N|jump SECONDS|date "YYYY-MM-DD HH:MM:SS[.fraction]"
// Sets the daemon's clock, which the preload library reads from FILE (/run/phone/clock in the lab's phone). A jump
// moves the date and shortens every wait; a date (in local time) moves the date only; a factor changes the speed from
// now on. Dates before 1970 are refused, as Linux refuses them for its own clock.
#include "ClockState.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>

namespace {

constexpr std::int64_t Second = 1'000'000'000;
// 2200-01-01 00:00:00 UTC: keeps dates in nanoseconds well inside 64 bits.
constexpr std::int64_t LatestDate = 7'258'118'400;

std::int64_t now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * Second + time.tv_nsec;
}

double number(const std::string& text, double low, double high) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0') throw std::runtime_error("'" + text + "' is not a number");
    if (!(value >= low && value <= high)) throw std::runtime_error("'" + text + "' is out of range");
    return value;
}

std::int64_t parseDate(const std::string& text) {
    std::tm fields{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields);
    if (rest == nullptr)
        throw std::runtime_error("'" + text + "' is not a date of the form YYYY-MM-DD HH:MM:SS[.fraction]");
    const double fraction = *rest == '\0' ? 0.0 : number(std::string("0") + rest, 0, 1);
    const int day = fields.tm_mday;
    fields.tm_isdst = -1;
    const std::int64_t seconds = std::mktime(&fields);
    if (seconds < 0) throw std::runtime_error("'" + text + "' is before 1970-01-01 00:00:00 UTC");
    if (seconds >= LatestDate) throw std::runtime_error("'" + text + "' is after the year 2199");
    if (fields.tm_mday != day) throw std::runtime_error("'" + text + "': the month has no such day");
    return seconds * Second + std::llround(fraction * 1e9);
}

lab::ClockState& map(const std::string& path, bool create) {
    const int file = open(path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
    if (file < 0 || flock(file, LOCK_EX) != 0 || (create && ftruncate(file, sizeof(lab::ClockState)) != 0))
        throw std::runtime_error("cannot open " + path);
    void* memory = mmap(nullptr, sizeof(lab::ClockState), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("cannot map " + path);
    // The descriptor stays open on purpose: it holds the lock until the process exits.
    return *static_cast<lab::ClockState*>(memory);
}

void show(const lab::ClockReading& clock) {
    const std::int64_t wall = clock.wall(now(CLOCK_REALTIME), now(CLOCK_MONOTONIC));
    const std::time_t seconds = wall / Second;
    std::tm fields{};
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&seconds, &fields));
    std::cout << text << " factor " << clock.factor << '\n';
}

void run(int count, char** words) {
    if (count < 3 || count > 4)
        throw std::invalid_argument("phone-clock FILE create|show|factor N|jump SECONDS|date TEXT");
    const std::string action = words[2];
    const std::string argument = count == 4 ? words[3] : "";
    lab::ClockState& state = map(words[1], action == "create");
    if (action == "create") {
        lab::ClockState* fresh = new (&state) lab::ClockState{};
        fresh->factor = 1;
        fresh->magic = lab::ClockState::Magic;
        return;
    }
    if (state.magic != lab::ClockState::Magic) throw std::runtime_error(std::string(words[1]) + " is not a clock");
    lab::ClockReading clock = lab::ClockReading::of(state);
    if (action == "show") return show(clock);

    const std::int64_t real = now(CLOCK_MONOTONIC);
    clock.phoneBase = clock.monotonic(real);
    clock.realBase = real;
    if (action == "factor")
        clock.factor = number(argument, 0.001, 100'000);
    else if (action == "jump")
        clock.phoneBase += std::llround(number(argument, 0, 1e8) * 1e9);
    else if (action == "date")
        clock.wallOffset += parseDate(argument) - clock.wall(now(CLOCK_REALTIME), real);
    else
        throw std::invalid_argument("unknown action '" + action + "'");

    ++state.sequence;
    state.realBase = clock.realBase;
    state.phoneBase = clock.phoneBase;
    state.wallOffset = clock.wallOffset;
    state.factor = clock.factor;
    ++state.sequence;
}

}  // namespace

int main(int count, char** words) {
    try {
        run(count, words);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "phone-clock: " << error.what() << '\n';
        return 2;
    }
}
