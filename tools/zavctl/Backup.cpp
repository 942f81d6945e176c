// Saves all settings, including secrets, to a file and restores them.
#include "Commands.h"
#include "Differences.h"
#include "Failure.h"
#include "Json.h"
#include "Output.h"
#include "PrivateFile.h"
#include "debug/Debug.h"
#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

// Settings of an older or newer version of the phone's software. An older service does not list them.
Settings uncataloguedOf(Session& session) {
    const Json::Value request = toObject({{"uncatalogued", true}});
    Settings settings;
    try {
        for (const Json::Value& one : session.requestAll(propertyprotocol::listTopic, request, "properties")) {
            settings[one["param"].asString()] = one["value"].asString();
        }
    } catch (const Failure& failure) {
        if (failure.name() != propertyprotocol::errors::badRequest) throw;
    }
    return settings;
}

Json::Value namesOf(const Settings& settings) {
    Json::Value names(Json::arrayValue);
    for (const auto& [key, value] : settings) names.append(key);
    return names;
}

}  // namespace

void backup(const Environment& environment, const Options& options, const std::string& path, bool replace) {
    Session session(environment, options.host);
    Settings settings = settingsOf(session, "", definitionsOf(session, ""));
    const Settings uncatalogued = uncataloguedOf(session);
    settings.insert(uncatalogued.begin(), uncatalogued.end());
    const std::string text = readableJson(toJson(settings)) + "\n";
    const bool toOutput = path == "-";
    if (toOutput) {
        environment.out << text;
    } else {
        writePrivateFile(path, text, replace);
    }
    if (options.json && !toOutput) {
        printJson(environment.out, toObject({{"file", path},
                                             {"settings", static_cast<Json::UInt64>(settings.size())},
                                             {"uncatalogued", namesOf(uncatalogued)}}));
        return;
    }
    for (const auto& [key, value] : uncatalogued) {
        printError(environment.err, key + " is stored but not in the catalogue; the backup includes it");
    }
    const std::string count = counted(settings.size(), "setting", "settings");
    if (toOutput) {
        printError(environment.err, count + " written to standard output, including passwords.");
    } else {
        environment.out << count << " written to " << dbg::escapeControls(path) << ", including passwords."
                        << std::endl;
    }
}

void restore(const Environment& environment, const Options& options, const std::string& path) {
    Settings settings = readSettings(path);
    Session session(environment, options.host);
    const Definitions definitions = definitionsOf(session, "");
    for (auto one = settings.begin(); one != settings.end();) {
        if (isSetting(definitions, one->first)) {
            ++one;
            continue;
        }
        printError(environment.err, one->first + " skipped: this phone has no such setting");
        one = settings.erase(one);
    }
    const std::vector<Difference> differences = changesTo(valuesOf(session, ""), settings);
    if (!differences.empty()) writeChanges(session, differences, true);
    if (options.json) {
        const Json::Value changes = toJson(shown(differences, definitions, options.showSecrets));
        printJson(environment.out, toObject({{"changes", changes}, {"applied", true}}));
    } else {
        environment.out << counted(differences.size(), "setting", "settings") << " written, "
                        << settings.size() - differences.size() << " unchanged." << std::endl;
    }
}

}  // namespace zavctl
