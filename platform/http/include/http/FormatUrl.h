// Device placeholders in URLs and local paths.
#pragma once

#include <memory>
#include <string>

#include "propertyapi/IPropertyApi.h"

namespace zav {

/// The text with %MACC (MAC address with ":"), %MACD (with "-") and %DVID (property "System.General.DeviceID")
/// expanded once. A property is read only where its placeholder stands; its value is reduced to [0-9A-Za-z:._-].
/// Blocks for the property service. Throws its PropertyException.
std::string formatUrl(const std::string& text, const std::shared_ptr<propertyapi::IPropertyApi>& properties);

}  // namespace zav
