// Many settings at once: out of the phone, into it, compared, and back to their defaults.
#include <algorithm>

#include "Commands.h"
#include "Definitions.h"
#include "Failure.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "SettingsFile.h"
#include "debug/Debug.h"

namespace zavctl {

namespace {

constexpr Json::ArrayIndex maxErrors = 1000;  // what the property service names at once

struct Difference {
    std::string key;
    std::optional<std::string> before;  // none: not there
    std::optional<std::string> after;   // none: not there; for the phone, back to its default
};

std::string counted(std::size_t count, const char* one, const char* more) {
    return std::to_string(count) + " " + (count == 1 ? one : more);
}

Settings valuesOf(Session& session, const std::string& prefix) {
    Settings values;
    for (propertyapi::Property& property : session.list(prefix)) values[property.key] = std::move(property.value);
    return values;
}

// What outlives a restart and may be written: what makes up the phone's configuration.
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

std::vector<Difference> compare(const Settings& before, const Settings& after, bool wholeBefore) {
    std::vector<Difference> differences;
    for (const auto& [key, value] : after) {
        const auto found = before.find(key);
        const std::optional<std::string> old = found == before.end() ? std::nullopt : found->second;
        if (found == before.end() || old != value) differences.push_back({key, old, value});
    }
    if (wholeBefore) {
        for (const auto& [key, value] : before) {
            if (after.count(key) == 0) differences.push_back({key, value, std::nullopt});
        }
        std::sort(differences.begin(), differences.end(),
                  [](const Difference& left, const Difference& right) { return left.key < right.key; });
    }
    return differences;
}

class Shower {
 public:
    Shower(const Definitions& definitions, bool showSecrets) : definitions_(definitions), showSecrets_(showSecrets) {}

    std::string operator()(const std::string& key, const std::string& value) const {
        return showSecrets_ ? value : shownValue(definitions_, key, value);
    }

    void lines(std::ostream& out, const std::vector<Difference>& differences) const {
        for (const Difference& one : differences) {
            if (one.before) out << "-" << line(one.key, *one.before);
            if (one.after) out << "+" << line(one.key, *one.after);
        }
    }

    Json::Value json(const std::vector<Difference>& differences) const {
        Json::Value list(Json::arrayValue);
        for (const Difference& one : differences) {
            Json::Value object;
            object["param"] = one.key;
            object["before"] = one.before ? Json::Value((*this)(one.key, *one.before)) : Json::Value();
            object["after"] = one.after ? Json::Value((*this)(one.key, *one.after)) : Json::Value();
            list.append(std::move(object));
        }
        return list;
    }

 private:
    std::string line(const std::string& key, const std::string& value) const {
        return dbg::escapeControls(key + "=" + (*this)(key, value)) + "\n";
    }

    const Definitions& definitions_;
    const bool showSecrets_;
};

// All of them or, with the reasons of every refused one, none. The service does it in one transaction.
void import(Session& session, const std::vector<Difference>& differences, bool apply) {
    Json::Value request;
    request["source"] = clientName;
    request["apply"] = apply;
    request["properties"] = Json::Value(Json::arrayValue);
    for (const Difference& one : differences) {
        Json::Value property;
        property["param"] = one.key;
        property["value"] = one.after ? Json::Value(*one.after) : Json::Value();
        request["properties"].append(std::move(property));
    }
    const Json::Value answer = session.ask("import", request);
    const Json::Value& errors = answer["errors"];
    if (!errors.isArray()) return;
    std::string reasons;
    bool allUnknown = true;
    for (const Json::Value& error : errors) {
        reasons += "; " + error["param"].asString() + ": " + error["reason"].asString();
        allUnknown = allUnknown && error["error"] == "not-found";
    }
    throw Failure(allUnknown ? ExitCode::noSuchKey : ExitCode::failed, allUnknown ? "not-found" : "invalid-value",
                  "nothing was written, " + counted(errors.size(), "setting is", "settings are") + " refused" +
                      (errors.size() < maxErrors ? "" : ", or more") + reasons);
}

}  // namespace

ExitCode exportSettings(const Environment& environment, const Options& options, const std::string& prefix) {
    Session session(environment, options.host);
    session.connect();
    const Definitions definitions = definitionsOf(session, prefix);
    Settings settings = settingsOf(session, prefix, definitions);
    std::size_t hidden = 0;
    for (auto one = settings.begin(); one != settings.end() && !options.showSecrets;) {
        const bool secret = definitions.at(one->first).isSecret();
        if (secret && !one->second->empty()) ++hidden;
        one = secret ? settings.erase(one) : std::next(one);
    }
    const Json::Value json = toJson(settings);
    environment.out << (options.json ? compactJson(json) : readableJson(json)) << std::endl;
    if (hidden > 0) {
        environment.err << "zavctl: " << counted(hidden, "secret is", "secrets are")
                        << " left out; --show-secrets includes them" << std::endl;
    }
    return ExitCode::done;
}

ExitCode importSettings(const Environment& environment, const Options& options, const std::string& path, bool apply) {
    const Settings wanted = readSettings(path);
    Session session(environment, options.host);
    session.connect();
    const Definitions definitions = definitionsOf(session, "");
    Settings resolved = wanted;
    for (auto& [key, value] : resolved) {
        const auto definition = definitions.find(key);
        if (!value && definition != definitions.end() && !definition->second.isSecret()) {
            value = definition->second.defaultValue;
        }
    }
    // A key that only stands in the file differs, and is refused by the service.
    std::vector<Difference> differences = compare(valuesOf(session, ""), resolved, false);
    import(session, differences, false);
    const Shower shower(definitions, options.showSecrets);
    if (!options.json) shower.lines(environment.out, differences);
    const Json::Value shown = shower.json(differences);
    for (Difference& one : differences) one.after = wanted.at(one.key);
    if (apply && !differences.empty()) import(session, differences, true);
    if (options.json) {
        Json::Value object;
        object["changes"] = shown;
        object["applied"] = apply;
        printJson(environment.out, object);
    } else if (differences.empty()) {
        environment.out << "Nothing to do: the phone is as the file says." << std::endl;
    } else {
        const std::string settings = counted(differences.size(), "setting", "settings");
        environment.out << (apply ? settings + " written." : settings + " would be written; --apply writes them.")
                        << std::endl;
    }
    return ExitCode::done;
}

ExitCode diffSettings(const Environment& environment, const Options& options, const std::string& before,
                      const std::string& after) {
    const Settings left = readSettings(before);
    Definitions definitions;
    Settings right;
    if (after.empty()) {
        Session session(environment, options.host);
        session.connect();
        definitions = definitionsOf(session, "");
        right = settingsOf(session, "", definitions);
    } else {
        right = readSettings(after);
    }
    const std::vector<Difference> differences = compare(left, right, true);
    // Without a phone nobody says what is secret; who has the files has the values.
    const Shower shower(definitions, options.showSecrets || !after.empty());
    if (options.json) {
        Json::Value object;
        object["changes"] = shower.json(differences);
        printJson(environment.out, object);
    } else {
        shower.lines(environment.out, differences);
    }
    return ExitCode::done;
}

ExitCode reset(const Environment& environment, const Options& options, const std::string& key) {
    Session session(environment, options.host);
    session.connect();
    const bool many = !key.empty() && key.back() == '.';
    std::vector<Difference> differences;
    if (many) {
        const Definitions definitions = definitionsOf(session, key);
        if (definitions.empty()) {
            throw Failure(ExitCode::noSuchKey, "not-found", "no key begins with \"" + key + "\"");
        }
        for (const auto& [name, value] : settingsOf(session, key, definitions)) {
            if (*value != definitions.at(name).defaultValue) differences.push_back({name, value, std::nullopt});
        }
    } else {
        definitionOf(session, key);
        differences.push_back({key, std::nullopt, std::nullopt});
    }
    if (!differences.empty()) import(session, differences, true);
    if (options.json) {
        Json::Value object;
        object["reset"] = Json::Value(Json::arrayValue);
        for (const Difference& one : differences) object["reset"].append(one.key);
        printJson(environment.out, object);
    } else if (many) {
        environment.out << counted(differences.size(), "setting is", "settings are") << " back at the default."
                        << std::endl;
    }
    return ExitCode::done;
}

ExitCode backup(const Environment& environment, const Options& options, const std::string& path, bool replace) {
    Session session(environment, options.host);
    session.connect();
    const Settings settings = settingsOf(session, "", definitionsOf(session, ""));
    writeSettings(path, settings, replace);
    if (options.json) {
        Json::Value object;
        object["file"] = path;
        object["settings"] = static_cast<Json::UInt64>(settings.size());
        printJson(environment.out, object);
    } else {
        environment.out << counted(settings.size(), "setting", "settings") << " in " << dbg::escapeControls(path)
                        << ", passwords among them." << std::endl;
    }
    return ExitCode::done;
}

ExitCode restore(const Environment& environment, const Options& options, const std::string& path) {
    Settings settings = readSettings(path);
    Session session(environment, options.host);
    session.connect();
    const Definitions definitions = definitionsOf(session, "");
    for (auto one = settings.begin(); one != settings.end();) {
        if (isSetting(definitions, one->first)) {
            ++one;
            continue;
        }
        environment.err << "zavctl: " << dbg::escapeControls(one->first)
                        << " is left out: this phone has no such setting" << std::endl;
        one = settings.erase(one);
    }
    const std::vector<Difference> differences = compare(valuesOf(session, ""), settings, false);
    if (!differences.empty()) import(session, differences, true);
    if (options.json) {
        Json::Value object;
        object["changes"] = Shower(definitions, options.showSecrets).json(differences);
        object["applied"] = true;
        printJson(environment.out, object);
    } else {
        environment.out << counted(differences.size(), "setting", "settings") << " written, "
                        << settings.size() - differences.size() << " as before." << std::endl;
    }
    return ExitCode::done;
}

}  // namespace zavctl
