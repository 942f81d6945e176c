// Compares and writes many settings at once, for export, import, diff, reset, backup and restore.
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
    std::optional<std::string> before;  // none: absent
    std::optional<std::string> after;   // none: absent; written to the phone: its default
};

/// "1 setting", "2 settings".
std::string counted(std::size_t count, const char* one, const char* more);

/// The values of all keys that begin with the prefix.
Settings valuesOf(Session& session, const std::string& prefix);

/// Settings are the properties that survive a restart and are writable: the phone's configuration.
bool isSetting(const Definitions& definitions, const std::string& key);
Settings settingsOf(Session& session, const std::string& prefix, const Definitions& definitions);

/// Replaces each null by the key's default. A null remains for an unknown key, and for a secret with a default, which
/// the service does not reveal.
Settings withDefaults(Settings settings, const Definitions& definitions);

/// Keys of `after` whose value differs in `before` or is absent there, sorted.
std::vector<Difference> changesTo(const Settings& before, const Settings& after);
/// The same, plus the keys that only `before` has.
std::vector<Difference> compare(const Settings& before, const Settings& after);

/// Writes all differences in one transaction of the service; without `apply`, only checks them. If any is refused,
/// nothing is written and the Failure lists every refused key with its reason.
void writeChanges(Session& session, const std::vector<Difference>& differences, bool apply);

/// The differences with secrets, and passwords in URLs, replaced by "***", unless `showSecrets`.
std::vector<Difference> shown(std::vector<Difference> differences, const Definitions& definitions, bool showSecrets);

void printDifferences(std::ostream& out, const std::vector<Difference>& differences);
Json::Value toJson(const std::vector<Difference>& differences);

}  // namespace zavctl
