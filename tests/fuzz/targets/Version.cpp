// Firmware versions and the versions of published files: two texts, one a line.
#include <algorithm>

#include "Core/JobHandlers/JobHandler.h"
#include "common/Ascii.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "version/FirmwareVersion.h"

namespace fuzz {

namespace {

using version::Comparison;
using version::FirmwareVersion;

Comparison reversed(Comparison comparison) {
    if (comparison == Comparison::newer) return Comparison::older;
    if (comparison == Comparison::older) return Comparison::newer;
    return comparison;
}

bool isVersion(Comparison withItself) { return withItself == Comparison::equal; }

void checkFirmware(const std::string& first, const std::string& second) {
    const FirmwareVersion a(first);
    const FirmwareVersion b(second);
    const Comparison forth = a.compare(b);
    const Comparison back = b.compare(a);
    if (isVersion(a.compare(a)) && isVersion(b.compare(b))) {
        promise(forth == reversed(back), "an order has two sides");
        promise(forth != Comparison::malformed, "a version is not malformed");
    } else {
        promise(forth == Comparison::malformed || back == Comparison::malformed, "what is not a version has no order");
    }
}

/// The same rule as the daemon's regular expression, written out: '9' stands for a digit, '?' for any byte.
bool matches(const std::string& text, const std::string& form) {
    return text.size() == form.size() && std::equal(text.begin(), text.end(), form.begin(), [](char c, char f) {
               return f == '?' || (f == '9' ? common::isAsciiDigit(c) : c == f);
           });
}

bool inRange(const std::string& digits, int low, int high) {
    const int number = std::stoi(digits);
    return number >= low && number <= high;
}

bool isPublishedVersion(const std::string& text) {
    if (text.find('\0') != std::string::npos) return false;
    if (matches(text, "V999?999?999")) return true;
    return matches(text, "2099-99-99_99:99:99") && inRange(text.substr(5, 2), 1, 12) &&
           inRange(text.substr(8, 2), 1, 31) && inRange(text.substr(11, 2), 0, 23) &&
           inRange(text.substr(14, 2), 0, 59) && inRange(text.substr(17, 2), 0, 59);
}

}  // namespace

void version(const std::string& input) {
    const auto [first, second] = splitLine(input);
    checkFirmware(first, second);
    promise(zav::isValidVersion(first) == isPublishedVersion(first), "the expression accepts what it says");
}

}  // namespace fuzz
