#include "Commands.h"

#include <json/value.h>

#include <algorithm>
#include <iomanip>
#include <utility>
#include <vector>

#include "Definitions.h"
#include "Output.h"
#include "Session.h"
#include "debug/Debug.h"

namespace zavctl {

namespace {

Json::Value pair(const std::string& key, const std::string& value) {
    Json::Value object;
    object["param"] = key;
    object["value"] = value;
    return object;
}

std::string getOrEmpty(propertyapi::IPropertyApi& properties, const std::string& key) {
    try {
        return properties.get(key);
    } catch (const propertyapi::PropertyNotFoundException&) {
        return {};
    }
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string periodText(const std::string& period) {
    if (period == "0") return "once a night";
    return isNumber(period) ? "every " + period + " s" : period;
}

std::string resultText(const std::string& state, bool pending, bool locked) {
    if (pending) return locked ? "unknown while a pass is running" : "unknown: a request is pending";
    return state.empty() ? "none since startup" : state;
}

}  // namespace

ExitCode get(const Environment& environment, const Options& options, const std::string& key) {
    Session session(environment, options.host);
    session.connect();
    const std::string value = session.properties().get(key);
    if (options.json) {
        printJson(environment.out, pair(key, value));
    } else {
        // A script gets the exact value; on a terminal it must not act as control sequences.
        environment.out << (environment.outIsTerminal ? dbg::escapeControls(value) : value) << std::endl;
    }
    return ExitCode::done;
}

ExitCode set(const Environment& environment, const Options& options, const std::string& key, const std::string& value) {
    Session session(environment, options.host);
    session.connect();
    session.properties().set(key, clientName, value);
    if (options.json) printJson(environment.out, pair(key, value));
    return ExitCode::done;
}

ExitCode list(const Environment& environment, const Options& options, const std::string& prefix) {
    Session session(environment, options.host);
    session.connect();
    Definitions definitions;
    if (!options.showSecrets) definitions = definitionsOf(session, prefix);
    Json::Value all(Json::arrayValue);
    for (const propertyapi::Property& property : session.listOrFail(prefix)) {
        const std::string value =
            options.showSecrets ? property.value : maskedValue(definitions, property.key, property.value);
        if (options.json) {
            all.append(pair(property.key, value));
        } else {
            environment.out << property.key << "=" << dbg::escapeControls(value) << "\n";
        }
    }
    if (options.json) {
        Json::Value object;
        object["properties"] = std::move(all);
        printJson(environment.out, object);
    }
    environment.out.flush();
    return ExitCode::done;
}

ExitCode status(const Environment& environment, const Options& options) {
    Session session(environment, options.host);
    session.connect();
    propertyapi::IPropertyApi& properties = session.properties();
    const std::string server = withoutPassword(getOrEmpty(properties, "System.Provision.ProvisioningServer"));
    const std::string state = getOrEmpty(properties, "State.Provisioning");
    const bool pending = state.find("request") != std::string::npos;  // the request has overwritten the last result
    const std::string http = getOrEmpty(properties, "State.Provisioning.HttpErrorCode");
    const bool locked = getOrEmpty(properties, "State.Provisioning.LockUI") == "1";
    const std::string software = getOrEmpty(properties, "System.General.SoftwareVersion");
    const std::string settings = getOrEmpty(properties, "System.Provision.SettingsVersion");
    const std::string custom = getOrEmpty(properties, "System.Provision.CustomVersion");
    const std::string provisioning = getOrEmpty(properties, "System.Provision.ProvisioningVersion");
    const std::string period = getOrEmpty(properties, "System.Provision.Period");
    if (options.json) {
        Json::Value object;
        object["server"] = server;
        object["requestPending"] = pending;
        object["result"] = pending ? Json::Value() : Json::Value(state);
        object["httpStatus"] = isNumber(http) ? Json::Value(std::stoi(http)) : Json::Value();
        object["uiLocked"] = locked;
        object["softwareVersion"] = software;
        object["settingsVersion"] = settings;
        object["customVersion"] = custom;
        object["provisioningVersion"] = provisioning;
        object["period"] = period;
        printJson(environment.out, object);
        return ExitCode::done;
    }
    const std::vector<std::pair<const char*, std::string>> lines{
        {"Server", server.empty() ? "none: provisioning is off" : server},
        {"Last result", resultText(state, pending, locked)},
        {"HTTP status", http},
        {"User interface", locked ? "locked by a pass" : "unlocked"},
        {"Software version", software},
        {"Settings version", settings},
        {"Custom version", custom},
        {"Provisioning version", provisioning},
        {"Next period", periodText(period)},
    };
    for (const auto& [name, text] : lines) {
        environment.out << std::left << std::setw(22) << name << (text.empty() ? "-" : dbg::escapeControls(text))
                        << "\n";
    }
    environment.out.flush();
    return ExitCode::done;
}

}  // namespace zavctl
