#include "lint/PhoneProperties.h"

#include "Core/Constants.h"

namespace lint {

using propertyapi::PropertyNotFoundException;

std::string PhoneProperties::get(const std::string& key) {
    if (key == zav::constants.macAddressKey && !phone_.macAddress.empty()) return phone_.macAddress;
    const auto value = phone_.values.find(key);
    if (value == phone_.values.end()) throw PropertyNotFoundException(key);
    return value->second;
}

void PhoneProperties::set(const std::string& key, const std::string&) { throw PropertyNotFoundException(key); }

void PhoneProperties::set(const std::string& key, const std::string&, const std::string&) {
    throw PropertyNotFoundException(key);
}

propertyapi::PropertyPage PhoneProperties::list(const std::string&, const std::string&) { return {}; }

}  // namespace lint
