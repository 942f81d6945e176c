// The texts of the property service's protocol: requests written, answers read. Pure functions.
#pragma once

#include <string>

#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

std::string getRequest(const std::string& key);
/// Throws PropertyInvalidValueException when the value is too long or no UTF-8 text.
std::string setRequest(const std::string& key, const std::string& source, const std::string& value);
std::string listRequest(const std::string& prefix, const std::string& after);

/// What an answer holds. Each throws the exception of the error that the answer names, and PropertyProtocolException
/// when it is no such answer.
std::string readValue(const std::string& key, const std::string& answer);
void readAcceptance(const std::string& key, const std::string& answer);
PropertyPage readPage(const std::string& prefix, const std::string& answer);

}  // namespace propertyapi
