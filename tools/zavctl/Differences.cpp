#include "Differences.h"

#include <algorithm>
#include <iterator>

#include "Failure.h"
#include "Output.h"
#include "debug/Debug.h"
#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

constexpr Json::ArrayIndex maxErrors = 1000;  // the property service reports no more

std::string counted(std::size_t count, const char* one, const char* more) {
    return std::to_string(count) + " " + (count == 1 ? one : more);
}

Settings valuesOf(Session& session, const std::string& prefix) {
    Settings values;
    for (propertyapi::Property& property : session.list(prefix)) values[property.key] = std::move(property.value);
    return values;
}

bool isSetting(const Definitions& definitions, const std::string& key) {
    const auto found = definitions.find(key);
    return found != definitions.end() && !found->second.isVolatile && !found->second.readOnly;
}

Settings settingsOf(Session& session, const std::string& prefix, const Definitions& definitions) {
    Settings settings = valuesOf(session, prefix);
    for (auto one = settings.begin(); one != settings.end();) {
        one = isSetting(definitions, one->first) ? std::next(one) : settings.erase(one);
    }
    return settings;
}

Settings withDefaults(Settings settings, const Definitions& definitions) {
    for (auto& [key, value] : settings) {
        const auto definition = definitions.find(key);
        if (value || definition == definitions.end()) continue;
        const bool isHidden = definition->second.isSecret() && !definition->second.defaultValue.empty();
        if (!isHidden) value = definition->second.defaultValue;
    }
    return settings;
}

std::vector<Difference> changesTo(const Settings& before, const Settings& after) {
    std::vector<Difference> differences;
    for (const auto& [key, value] : after) {
        const auto found = before.find(key);
        const std::optional<std::string> old = found == before.end() ? std::nullopt : found->second;
        if (found == before.end() || old != value) differences.push_back({key, old, value});
    }
    return differences;
}

std::vector<Difference> compare(const Settings& before, const Settings& after) {
    std::vector<Difference> differences = changesTo(before, after);
    for (const auto& [key, value] : before) {
        if (after.count(key) == 0) differences.push_back({key, value, std::nullopt});
    }
    std::sort(differences.begin(), differences.end(),
              [](const Difference& left, const Difference& right) { return left.key < right.key; });
    return differences;
}

void writeChanges(Session& session, const std::vector<Difference>& differences, bool apply) {
    Json::Value writes(Json::arrayValue);
    for (const Difference& one : differences) {
        writes.append(toObject({{"param", one.key}, {"value", orNull(one.after)}}));
    }
    const Json::Value request = toObject({{"source", clientName}, {"apply", apply}, {"properties", writes}});
    const Json::Value answer = session.request(propertyprotocol::importTopic, request);
    const Json::Value& errors = answer["errors"];
    if (!errors.isArray()) return;
    std::string reasons;
    bool allUnknown = true;
    for (const Json::Value& error : errors) {
        reasons += "; " + error["param"].asString() + ": " + error["reason"].asString();
        allUnknown = allUnknown && error["error"] == propertyprotocol::errors::notFound;
    }
    throw Failure(allUnknown ? ExitCode::noSuchKey : ExitCode::failed,
                  allUnknown ? propertyprotocol::errors::notFound : propertyprotocol::errors::invalidValue,
                  "nothing was written: " + counted(errors.size(), "setting was", "settings were") + " refused" +
                      (errors.size() < maxErrors ? "" : ", or more") + reasons);
}

std::vector<Difference> shown(std::vector<Difference> differences, const Definitions& definitions, bool showSecrets) {
    for (Difference& one : differences) {
        for (std::optional<std::string>* const value : {&one.before, &one.after}) {
            if (*value && !showSecrets) *value = maskedValue(definitions, one.key, **value);
        }
    }
    return differences;
}

void printDifferences(std::ostream& out, const std::vector<Difference>& differences) {
    for (const Difference& one : differences) {
        if (one.before) out << "-" << dbg::escapeControls(one.key + "=" + *one.before) << "\n";
        if (one.after) out << "+" << dbg::escapeControls(one.key + "=" + *one.after) << "\n";
    }
}

Json::Value toJson(const std::vector<Difference>& differences) {
    Json::Value list(Json::arrayValue);
    for (const Difference& one : differences) {
        list.append(toObject({{"param", one.key}, {"before", orNull(one.before)}, {"after", orNull(one.after)}}));
    }
    return list;
}

}  // namespace zavctl
