// Writes the requests and reads the answers of the property service's protocol. Pure functions.
#pragma once

#include <string>

#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

std::string getRequest(const std::string& key);
/// Throws PropertyInvalidValueException if the value is too long or not UTF-8.
std::string setRequest(const std::string& key, const std::string& source, const std::string& value);
std::string listRequest(const std::string& prefix, const std::string& after);

/// Read an answer. Each throws the exception for the error that the answer names, or PropertyProtocolException if the
/// answer is malformed.
std::string readValue(const std::string& key, const std::string& answer);
void checkSetAnswer(const std::string& key, const std::string& answer);
PropertyPage readPage(const std::string& prefix, const std::string& answer);

}  // namespace propertyapi
