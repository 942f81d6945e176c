// Definitions of keys in the running service's catalogue.
#pragma once

#include <map>
#include <string>

#include "Session.h"

namespace zavctl {

struct Definition {
    std::string type;
    std::string defaultValue;  // "***" if the key is a secret with a default
    std::string description;
    bool readOnly = false;
    bool isVolatile = false;
    std::string limits;          // as text, such as "from 1 to 9"; empty: none
    std::string refusedSources;  // as text, such as "\"provisioning\""; empty: any client may write it

    bool isSecret() const { return type == "secret"; }
};

using Definitions = std::map<std::string, Definition>;

Definition definitionOf(Session& session, const std::string& key);
Definitions definitionsOf(Session& session, const std::string& prefix);

/// The value with secrets, and passwords in URLs, replaced by "***".
std::string maskedValue(const Definitions& definitions, const std::string& key, const std::string& value);

}  // namespace zavctl
