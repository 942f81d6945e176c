#include "lint/Settings.h"

#include <json/value.h>

#include <algorithm>

#include "lint/Lint.h"
#include "lint/Spelling.h"

namespace lint {

namespace {

// The members of a description that are no limits of the value.
constexpr const char* otherMembers[] = {"param",    "type",     "default",       "description",
                                        "readOnly", "volatile", "refusedSources"};

bool isLimit(const std::string& member) {
    return std::none_of(std::begin(otherMembers), std::end(otherMembers),
                        [&](const char* other) { return member == other; });
}

propertyservice::ValueRule ruleOf(const Json::Value& description) {
    Json::Value definition(Json::objectValue);
    definition["type"] = description["type"];
    for (const std::string& member : description.getMemberNames()) {
        if (isLimit(member)) definition[member] = description[member];
    }
    try {
        return propertyservice::makeValueRule(definition);
    } catch (const std::invalid_argument&) {  // the service is newer than this program
        return [](const std::string&) { return std::string(); };
    }
}

}  // namespace

std::shared_ptr<const Settings> Settings::load(const std::string& path) {
    try {
        return of(propertyservice::Catalogue::load(path));
    } catch (const propertyservice::CatalogueException& error) {
        throw LintException(error.what());
    }
}

std::shared_ptr<const Settings> Settings::of(const propertyservice::Catalogue& catalogue) {
    auto settings = std::make_shared<Settings>();
    for (const propertyservice::CatalogueKey& key : catalogue.keys()) {
        settings->definitions_.emplace(std::string(key.key), key.definition);
    }
    return settings;
}

void Settings::add(const Json::Value& description) {
    if (!description.isObject() || !description["param"].isString() || !description["type"].isString()) return;
    auto definition = std::make_shared<propertyservice::Definition>();
    definition->type = description["type"].asString();
    definition->readOnly = description["readOnly"] == true;
    definition->isVolatile = description["volatile"] == true;
    if (description["default"].isString()) definition->defaultValue = description["default"].asString();
    for (const Json::Value& source : description["refusedSources"]) {
        if (source.isString()) definition->refusedSources.push_back(source.asString());
    }
    definition->rule = ruleOf(description);
    definitions_.insert_or_assign(description["param"].asString(), std::move(definition));
}

const propertyservice::Definition* Settings::find(const std::string& key) const {
    const auto found = definitions_.find(key);
    return found == definitions_.end() ? nullptr : found->second.get();
}

std::string Settings::nearest(const std::string& key) const {
    Nearest nearest(key);
    for (const auto& [known, definition] : definitions_) nearest.consider(known);
    return nearest.found();
}

}  // namespace lint
