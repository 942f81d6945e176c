// Exports, imports, compares, resets, backs up and restores settings.
#include "Commands.h"
#include "Differences.h"
#include "Json.h"
#include "Output.h"
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

void exportSettings(const Environment& environment, const Options& options, const std::string& prefix) {
    Session session(environment, options.host);
    const Definitions definitions = definitionsOf(session, prefix);
    Settings settings = settingsOf(session, prefix, definitions);
    if (settings.empty() && !prefix.empty()) {
        throw Failure(ExitCode::noSuchKey, propertyprotocol::errors::notFound,
                      "no setting begins with \"" + prefix + "\"");
    }
    std::size_t hidden = 0;
    for (auto one = settings.begin(); one != settings.end() && !options.showSecrets;) {
        const bool secret = definitions.at(one->first).isSecret();
        if (secret && !one->second->empty()) ++hidden;
        one = secret ? settings.erase(one) : std::next(one);
    }
    const Json::Value json = toJson(settings);
    environment.out << (options.json ? compactJson(json) : readableJson(json)) << std::endl;
    if (hidden > 0) {
        printError(environment.err, counted(hidden, "secret", "secrets") + " omitted; --show-secrets includes them");
    }
}

void importSettings(const Environment& environment, const Options& options, const std::string& path, bool apply) {
    const Settings wanted = readSettings(path);
    Session session(environment, options.host);
    const Definitions definitions = definitionsOf(session, "");
    // A key that only the file has counts as a difference; the service refuses it.
    std::vector<Difference> differences = changesTo(valuesOf(session, ""), withDefaults(wanted, definitions));
    writeChanges(session, differences, false);
    const std::vector<Difference> visible = shown(differences, definitions, options.showSecrets);
    if (!options.json) printDifferences(environment.out, visible);
    for (Difference& one : differences) one.after = wanted.at(one.key);
    if (apply && !differences.empty()) writeChanges(session, differences, true);
    if (options.json) {
        printJson(environment.out, toObject({{"changes", toJson(visible)}, {"applied", apply}}));
    } else if (differences.empty()) {
        environment.out << "Nothing to do: the phone already has these settings." << std::endl;
    } else {
        const std::string settings = counted(differences.size(), "setting", "settings");
        environment.out << (apply ? settings + " written." : settings + " would be written; --apply writes them.")
                        << std::endl;
    }
}

void diffSettings(const Environment& environment, const Options& options, const std::string& before,
                  const std::optional<std::string>& after, bool all) {
    Settings left = readSettings(before);
    Definitions definitions;
    Settings right;
    if (!after) {
        Session session(environment, options.host);
        definitions = definitionsOf(session, "");
        left = withDefaults(std::move(left), definitions);
        for (auto& [key, value] : valuesOf(session, "")) {
            if (left.count(key) > 0 || (all && isSetting(definitions, key))) right[key] = std::move(value);
        }
    } else {
        right = readSettings(*after);
    }
    // Without a phone there is no catalogue that says which keys are secret. The caller can read both files anyway.
    const bool showSecrets = options.showSecrets || after;
    const std::vector<Difference> differences = shown(compare(left, right), definitions, showSecrets);
    if (options.json) {
        printJson(environment.out, toObject({{"changes", toJson(differences)}}));
    } else {
        printDifferences(environment.out, differences);
    }
}

void reset(const Environment& environment, const Options& options, const std::string& key) {
    Session session(environment, options.host);
    const bool many = !key.empty() && key.back() == '.';
    std::vector<Difference> differences;
    if (many) {
        const Definitions definitions = definitionsOf(session, key);
        if (definitions.empty()) {
            throw Failure(ExitCode::noSuchKey, propertyprotocol::errors::notFound,
                          "no key begins with \"" + key + "\"");
        }
        for (const auto& [name, value] : settingsOf(session, key, definitions)) {
            if (*value != definitions.at(name).defaultValue) differences.push_back({name, value, std::nullopt});
        }
    } else {
        definitionOf(session, key);
        differences.push_back({key, std::nullopt, std::nullopt});
    }
    if (!differences.empty()) writeChanges(session, differences, true);
    if (options.json) {
        Json::Value keys(Json::arrayValue);
        for (const Difference& one : differences) keys.append(one.key);
        printJson(environment.out, toObject({{"reset", keys}}));
    } else if (many) {
        environment.out << counted(differences.size(), "setting", "settings") << " reset." << std::endl;
    }
}

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
