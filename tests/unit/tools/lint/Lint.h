// What the tests of lint share.
#pragma once

#include <string>
#include <vector>

#include "debug/Debug.h"
#include "lint/Lint.h"
#include "lint/Settings.h"

namespace lint {

inline Options options() {
    static dbg::Debug channel("LINT");
    dbg::Debug::setDebugLevelMask("0");
    static const auto settings = Settings::load(CATALOGUE);
    Options given;
    given.settings = settings;
    return given;
}

/// "RULE at LINE:COLUMN"
inline std::vector<std::string> shortForms(const std::vector<Finding>& findings) {
    std::vector<std::string> all;
    for (const Finding& finding : findings) {
        all.push_back(finding.rule + " at " + std::to_string(finding.line) + ":" + std::to_string(finding.column));
    }
    return all;
}

inline std::string provisioning(const std::string& inside, const std::string& version = "1.1") {
    return "<provisioning version=\"" + version + "\" productID=\"kd4v\">" + inside + "</provisioning>";
}

}  // namespace lint
