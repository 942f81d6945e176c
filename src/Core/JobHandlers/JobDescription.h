// One job of a provisioning file.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zav {

using Attributes = std::map<std::string, std::string>;

struct JobDescription {
    std::string name;               // of the job element
    std::string itemName;           // common to its children
    std::vector<Attributes> items;  // the children's attributes, in document order
};

}  // namespace zav
