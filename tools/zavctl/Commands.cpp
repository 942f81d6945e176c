#include "Commands.h"

#include <json/value.h>

#include <utility>
#include <vector>

#include "Definitions.h"
#include "Output.h"
#include "Session.h"
#include "common/UrlSyntax.h"
#include "debug/Debug.h"
#include "propertyprotocol/Errors.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

Json::Value pair(const std::string& key, const std::string& value) {
    return toObject({{"param", key}, {"value", value}});
}

std::string getOrEmpty(propertyapi::IPropertyApi& properties, const std::string& key) {
    try {
        return properties.get(key);
    } catch (const propertyapi::PropertyNotFoundException&) {
        return {};
    }
}

std::string periodText(const std::string& period) {
    if (period == "0") return "once a night";
    return isNumber(period) ? "every " + period + " s" : period;
}

std::string resultText(const std::string& state, bool pending, bool locked) {
    if (pending) return locked ? "unknown while a pass is running" : "unknown: a request is pending";
    return state.empty() ? "none since startup" : state;
}

// All properties whose keys begin with the prefix; throws a Failure if there are none.
std::vector<propertyapi::Property> matching(Session& session, const std::string& prefix) {
    std::vector<propertyapi::Property> properties = session.list(prefix);
    if (properties.empty() && !prefix.empty()) {
        throw Failure(ExitCode::noSuchKey, propertyprotocol::errors::notFound, "no key begins with \"" + prefix + "\"");
    }
    return properties;
}

std::string writersOf(const Definition& definition) {
    if (definition.readOnly) return "no client: it is read-only";
    if (definition.refusedSources.empty()) return "any client";
    return "any client except " + definition.refusedSources;
}

}  // namespace

void get(const Environment& environment, const Options& options, const std::string& key) {
    Session session(environment, options.host);
    const std::string value = session.properties().get(key);
    if (options.json) {
        printJson(environment.out, pair(key, value));
    } else {
        // A script gets the exact value; on a terminal it must not act as control sequences.
        environment.out << (environment.outIsTerminal ? dbg::escapeControls(value) : value) << std::endl;
    }
}

void set(const Environment& environment, const Options& options, const std::string& key, const std::string& value) {
    Session session(environment, options.host);
    session.properties().set(key, clientName, value);
    if (options.json) printJson(environment.out, pair(key, value));
}

void list(const Environment& environment, const Options& options, const std::string& prefix) {
    Session session(environment, options.host);
    Definitions definitions;
    if (!options.showSecrets) definitions = definitionsOf(session, prefix);
    Json::Value all(Json::arrayValue);
    for (const propertyapi::Property& property : matching(session, prefix)) {
        const std::string value =
            options.showSecrets ? property.value : maskedValue(definitions, property.key, property.value);
        if (options.json) {
            all.append(pair(property.key, value));
        } else {
            environment.out << property.key << "=" << dbg::escapeControls(value) << "\n";
        }
    }
    if (options.json) printJson(environment.out, toObject({{"properties", all}}));
    environment.out.flush();
}

void describe(const Environment& environment, const Options& options, const std::string& key) {
    Session session(environment, options.host);
    if (options.json) {
        printJson(environment.out, session.request(propertyprotocol::describeTopic, toObject({{"param", key}})));
        return;
    }
    const Definition definition = definitionOf(session, key);
    const Table table{
        {"Key", key},
        {"Description", definition.description},
        {"Type", definition.limits.empty() ? definition.type : definition.type + ", " + definition.limits},
        {"Default", definition.defaultValue.empty() ? "empty" : definition.defaultValue},
        {"Writable by", writersOf(definition)},
        {"Persistence", definition.isVolatile ? "until the property service restarts" : "permanent"},
    };
    printTable(environment.out, 13, table);
}

void keys(const Environment& environment, const Options& options, const std::string& prefix) {
    Session session(environment, options.host);
    Json::Value all(Json::arrayValue);
    for (const propertyapi::Property& property : matching(session, prefix)) {
        if (options.json) {
            all.append(property.key);
        } else {
            environment.out << property.key << "\n";
        }
    }
    if (options.json) printJson(environment.out, toObject({{"keys", all}}));
    environment.out.flush();
}

void status(const Environment& environment, const Options& options) {
    Session session(environment, options.host);
    propertyapi::IPropertyApi& properties = session.properties();
    const std::string server = common::withoutPassword(getOrEmpty(properties, "System.Provision.ProvisioningServer"));
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
        printJson(environment.out, toObject({{"server", server},
                                             {"requestPending", pending},
                                             {"result", pending ? Json::Value() : Json::Value(state)},
                                             {"httpStatus", toNumber(http)},
                                             {"uiLocked", locked},
                                             {"softwareVersion", software},
                                             {"settingsVersion", settings},
                                             {"customVersion", custom},
                                             {"provisioningVersion", provisioning},
                                             {"period", period}}));
        return;
    }
    const Table table{
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
    printTable(environment.out, 22, table);
}

}  // namespace zavctl
