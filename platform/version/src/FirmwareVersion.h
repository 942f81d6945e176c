// A parsed version text.
#pragma once

#include <string>
#include <vector>

#include "version/IFirmwareVersion.h"

namespace version {

class FirmwareVersion final : public IFirmwareVersion {
 public:
    explicit FirmwareVersion(std::string text);

    Comparison compare(const IFirmwareVersion& offered) const override;
    const std::string& text() const override { return text_; }

 private:
    bool parse();

    const std::string text_;
    std::string productLine_;           // empty if there is none
    std::vector<std::string> numbers_;  // decimal, without leading zeros: 0 is empty
    const bool valid_;
};

}  // namespace version
