// Makes version objects. One factory a process; any thread.
#pragma once

#include <memory>
#include <string>

#include "version/IFirmwareVersion.h"

namespace version {

class IFirmwareVersionFactory {
 public:
    static IFirmwareVersionFactory& getInstance();
    virtual ~IFirmwareVersionFactory() = default;

    /// A version of a kind that FirmwareVersionConsts names; the text counts for offered versions only.
    /// Throws std::invalid_argument for another kind.
    virtual std::unique_ptr<IFirmwareVersion> create(const std::string& kind, const std::string& text) = 0;
};

}  // namespace version
