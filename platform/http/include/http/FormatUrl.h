// Device placeholders in URLs and local paths.
#pragma once

#include <memory>
#include <string>

#include "propertyapi/IPropertyApi.h"

namespace zav {

/// Expands %MACC (MAC address with ":"), %MACD (with "-") and %DVID (property "System.General.DeviceID"), once. Reads a
/// property only if its placeholder occurs, and removes all characters but [0-9A-Za-z:._-] from its value.
/// Blocks on the property service. Throws PropertyException if a property cannot be read.
std::string formatUrl(const std::string& text, const std::shared_ptr<propertyapi::IPropertyApi>& properties);

}  // namespace zav
