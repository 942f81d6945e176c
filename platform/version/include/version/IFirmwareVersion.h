// A firmware version and its comparison with another one.
//
// The text has the form `[LINE-][V]NUMBER{.NUMBER}`: "V2.13.7", "2.13", "kd4v-2.13.7", at most 128 bytes. Missing
// numbers count as 0. LINE is a product line (letters and digits); if both versions name one, they must be equal.
#pragma once

#include <string>

namespace version {

/// How an offered version compares with the running one.
enum class Comparison : int {
    newer = 0,
    older = 1,
    equal = 2,
    malformed = 3,      // the offered text is not a version
    noUpgradePath = 4,  // the running version is unknown, or of another product line
};

class IFirmwareVersion {
 public:
    virtual ~IFirmwareVersion() = default;

    /// Compares `offered` with this version as the running one.
    virtual Comparison compare(const IFirmwareVersion& offered) const = 0;

    /// The text that the version was created from, valid or not.
    virtual const std::string& text() const = 0;
};

}  // namespace version
