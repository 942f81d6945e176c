// A firmware version and its comparison with another one. Immutable.
//
// The text has the form `[LINE-][V]NUMBER{.NUMBER}`: "V2.13.7", "2.13", "kd4v-2.13.7", at most 128 bytes. Missing
// numbers count as 0. LINE is a product line (letters and digits); if both versions name one, they must be equal.
#pragma once

#include <string>
#include <vector>

namespace version {

/// How an offered version compares with the running one.
enum class Comparison : int {
    newer = 0,
    older = 1,
    equal = 2,
    malformed = 3,      // the offered text is not a version
    noUpgradePath = 4,  // the running version is unknown, or of another product line
};

class FirmwareVersion {
 public:
    explicit FirmwareVersion(std::string text);

    /// Whether the text has the form above.
    bool isValid() const { return valid_; }

    /// Compares `offered` with this version as the running one.
    Comparison compare(const FirmwareVersion& offered) const;

    /// The text that the version was created from, valid or not.
    const std::string& text() const { return text_; }

 private:
    bool parse();

    const std::string text_;
    std::string productLine_;           // empty if there is none
    std::vector<std::string> numbers_;  // decimal, without leading zeros: 0 is empty
    const bool valid_;
};

}  // namespace version
