// One job of a provisioning file.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zav {

using Attributes = std::map<std::string, std::string>;

struct JobDescription {
    std::string name;               // of the job element
    std::string itemName;           // of its child elements
    std::vector<Attributes> items;  // attributes of the child elements, in document order
};

/// The attribute's value, `fallback` if the item has no such attribute.
inline std::string attributeOr(const Attributes& item, const std::string& name, const std::string& fallback) {
    const auto found = item.find(name);
    return found == item.end() ? fallback : found->second;
}

}  // namespace zav
