// Writes the requests and reads the responses of the property service's protocol. Pure functions.
#pragma once

#include <string>

#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

/// The text of an exception: the key and the reason.
std::string errorText(const std::string& key, const std::string& reason);

std::string getRequest(const std::string& key);
/// Throws PropertyInvalidValueException if the value is too long or not UTF-8.
std::string setRequest(const std::string& key, const std::string& source, const std::string& value);
std::string listRequest(const std::string& prefix, const std::string& after);

/// Read a response. Each throws the exception for the error that the response names, or PropertyProtocolException if
/// the response is malformed.
std::string readValue(const std::string& key, const std::string& response);
void checkSetResponse(const std::string& key, const std::string& response);
PropertyPage readPage(const std::string& prefix, const std::string& response);

}  // namespace propertyapi
