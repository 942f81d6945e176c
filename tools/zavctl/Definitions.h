// What the catalogue says about keys, asked from the running service.
#pragma once

#include <map>
#include <string>

#include "Session.h"

namespace zavctl {

struct Definition {
    std::string type;
    std::string defaultValue;  // of a secret "***" when it has one
    std::string description;
    bool readOnly = false;
    bool isVolatile = false;
    std::string limits;          // in words, "from 1 to 9"; empty: none
    std::string refusedSources;  // in words, "\"provisioning\""; empty: any client may write it

    bool isSecret() const { return type == "secret"; }
};

using Definitions = std::map<std::string, Definition>;

Definition definitionOf(Session& session, const std::string& key);
Definitions definitionsOf(Session& session, const std::string& prefix);

/// What may be shown of the value: nothing of a secret, and no password in a URL.
std::string shownValue(const Definitions& definitions, const std::string& key, const std::string& value);

}  // namespace zavctl
