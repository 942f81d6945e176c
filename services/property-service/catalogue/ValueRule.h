// What text a key may hold. Rules are immutable once made, and may be used from any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Json {
class Value;
}

namespace propertyservice {

class ValueRule {
 public:
    virtual ~ValueRule() = default;

    /// Why the value is not allowed, as a person would say it ("must be a whole number from 0 to 7"); empty: it is.
    virtual std::string objection(const std::string& value) const = 0;
};

/// Makes the rule that a catalogue definition describes with "type" and the limits that go with it.
/// Throws std::invalid_argument with the reason for an unknown type, a missing or contradictory limit, or a member
/// that neither the type nor every definition has.
std::shared_ptr<const ValueRule> makeValueRule(const Json::Value& definition);

/// The members that limit values of the type, in the order in which they are described.
std::vector<std::string> limitNames(const std::string& type);

}  // namespace propertyservice
