// Creates version objects. One factory per process. Any thread.
#pragma once

#include <memory>
#include <string>

#include "version/FirmwareVersion.h"

namespace version {

class IFirmwareVersionFactory {
 public:
    static IFirmwareVersionFactory& getInstance();
    virtual ~IFirmwareVersionFactory() = default;

    /// `kind` is one of FirmwareVersionConsts; the running version ignores `text`. An invalid text is not an error
    /// here: compare reports it. Throws std::invalid_argument if the kind is unknown.
    virtual std::unique_ptr<FirmwareVersion> create(const std::string& kind, const std::string& text) = 0;
};

}  // namespace version
