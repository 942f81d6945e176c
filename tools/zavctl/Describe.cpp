#include <iomanip>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Definitions.h"
#include "Output.h"
#include "Session.h"
#include "debug/Debug.h"
#include "propertyprotocol/Topics.h"

namespace zavctl {

namespace {

std::string writersOf(const Definition& definition) {
    if (definition.readOnly) return "no client: it is read-only";
    if (definition.refusedSources.empty()) return "any client";
    return "any client except " + definition.refusedSources;
}

}  // namespace

ExitCode describe(const Environment& environment, const Options& options, const std::string& key) {
    Session session(environment, options.host);
    session.connect();
    if (options.json) {
        Json::Value request;
        request["param"] = key;
        printJson(environment.out, session.request(propertyprotocol::describeTopic, request));
        return ExitCode::done;
    }
    const Definition definition = definitionOf(session, key);
    const std::vector<std::pair<const char*, std::string>> lines{
        {"Key", key},
        {"Description", definition.description},
        {"Type", definition.limits.empty() ? definition.type : definition.type + ", " + definition.limits},
        {"Default", definition.defaultValue.empty() ? "empty" : definition.defaultValue},
        {"Writable by", writersOf(definition)},
        {"Persistence", definition.isVolatile ? "until the property service restarts" : "permanent"},
    };
    for (const auto& [name, text] : lines) {
        environment.out << std::left << std::setw(13) << name << dbg::escapeControls(text) << "\n";
    }
    environment.out.flush();
    return ExitCode::done;
}

ExitCode keys(const Environment& environment, const Options& options, const std::string& prefix) {
    Session session(environment, options.host);
    session.connect();
    Json::Value object;
    object["keys"] = Json::Value(Json::arrayValue);
    for (const propertyapi::Property& property : session.listOrFail(prefix)) {
        if (options.json) {
            object["keys"].append(property.key);
        } else {
            environment.out << property.key << "\n";
        }
    }
    if (options.json) printJson(environment.out, object);
    environment.out.flush();
    return ExitCode::done;
}

}  // namespace zavctl
