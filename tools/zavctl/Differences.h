// What many settings at once are compared and written with: for export, import, diff, reset, backup and restore.
#pragma once

#include <json/value.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Definitions.h"
#include "Session.h"
#include "SettingsFile.h"

namespace zavctl {

struct Difference {
    std::string key;
    std::optional<std::string> before;  // none: not there
    std::optional<std::string> after;   // none: not there; for the phone, back to its default
};

/// "1 setting", "2 settings".
std::string counted(std::size_t count, const char* one, const char* more);

/// Every property that begins with the prefix.
Settings valuesOf(Session& session, const std::string& prefix);

/// Settings are what outlives a restart and may be written: what makes up the phone's configuration.
bool isSetting(const Definitions& definitions, const std::string& key);
Settings settingsOf(Session& session, const std::string& prefix, const Definitions& definitions);

/// The settings with every null replaced by the default, as far as the catalogue says what it is: not of a secret that
/// has one, nor of an unknown key.
Settings withDefaults(Settings settings, const Definitions& definitions);

/// Keys of `after` whose value differs in `before` or is not there, sorted.
std::vector<Difference> changesTo(const Settings& before, const Settings& after);
/// The same, and the keys that only `before` has.
std::vector<Difference> compare(const Settings& before, const Settings& after);

/// Writes all of them (with `apply`; without it, only checks) or, with a Failure that has the reason of every refused
/// one, none. The service does it in one transaction.
void writeChanges(Session& session, const std::vector<Difference>& differences, bool apply);

/// Shows differences, secrets and passwords hidden unless asked for.
class DifferencePrinter {
 public:
    DifferencePrinter(const Definitions& definitions, bool showSecrets)
        : definitions_(definitions), showSecrets_(showSecrets) {}

    void print(std::ostream& out, const std::vector<Difference>& differences) const;
    Json::Value json(const std::vector<Difference>& differences) const;

 private:
    std::string shown(const std::string& key, const std::string& value) const;
    std::string line(const std::string& key, const std::string& value) const;

    const Definitions& definitions_;
    const bool showSecrets_;
};

}  // namespace zavctl
