// Rules for the values of a key. Rules are immutable and may be used from any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Json {
class Value;
}

namespace propertyservice {

/// Returns why the value is not allowed ("must be a whole number from 0 to 7"), "" if it is allowed.
using ValueRule = std::function<std::string(const std::string& value)>;

/// Creates the rule for a catalogue definition from its "type" and the limits of that type.
/// Throws std::invalid_argument with the reason for an unknown type, a missing or contradictory limit, or an unknown
/// member.
ValueRule makeValueRule(const Json::Value& definition);

/// Throws std::invalid_argument with the reason unless a definition is valid.
void require(bool isValid, std::string_view reason);

/// The members that limit values of the type, in the order of descriptions.
std::vector<std::string> limitNames(const std::string& type);

}  // namespace propertyservice
