// A firmware version, and how another one compares with it.
//
// The text is `[LINE-][V]NUMBER{.NUMBER}`: "V2.13.7", "2.13", "kd4v-2.13.7". Missing parts count as 0, numbers have any
// length, LINE names a product line (letters and digits) and may be left out by either side.
#pragma once

#include <string>

namespace version {

/// What an offered version is to the running one.
enum class Comparison : int {
    newer = 0,
    older = 1,
    equal = 2,
    malformed = 3,      // the offered text is no version
    noUpgradePath = 4,  // the running version is unknown, or the offered one belongs to another product line
};

class IFirmwareVersion {
 public:
    virtual ~IFirmwareVersion() = default;

    /// This version is the running one, `offered` the other.
    virtual Comparison compare(const IFirmwareVersion& offered) const = 0;

    /// The text as it was given.
    virtual const std::string& text() const = 0;
};

}  // namespace version
