#include <algorithm>

#include "lint/Checks.h"
#include "lint/Spelling.h"

namespace lint {

namespace {

// For other programs; every XML document may have them.
bool isForEditors(const std::string& attribute) {
    static const std::vector<std::string> names{
        "schemaLocation", "noNamespaceSchemaLocation", "lang", "space", "base", "id"};
    return std::find(names.begin(), names.end(), attribute) != names.end();
}

bool isKnownOrForEditors(const std::string& attribute, const std::vector<std::string>& known) {
    return std::find(known.begin(), known.end(), attribute) != known.end() || isForEditors(attribute);
}

std::string nearestOf(const std::string& misspelt, const std::vector<std::string>& names) {
    Nearest nearest(misspelt);
    for (const std::string& name : names) nearest.consider(name);
    return nearest.found();
}

void checkElement(Checks& checks, std::size_t element, const zav::Attributes& attributes,
                  const std::vector<std::string>& known) {
    for (const auto& [attribute, value] : attributes) {
        if (isKnownOrForEditors(attribute, known)) continue;
        const std::string meant = nearestOf(attribute, known);
        const bool isMissed = !meant.empty() && attributes.count(meant) == 0;
        checks.add(isMissed ? RuleId::misspeltAttribute : RuleId::unknownAttribute, nameOf(element, attribute),
                   quoted(checks.document.nameOf(element)) + " has no attribute " + quoted(attribute),
                   meant.empty() ? "" : "write " + quoted(meant));
    }
}

}  // namespace

bool isMisspelt(const zav::Attributes& attributes, const std::string& wanted, const std::vector<std::string>& known) {
    if (attributes.count(wanted) > 0) return false;
    return std::any_of(attributes.begin(), attributes.end(), [&](const auto& attribute) {
        return !isKnownOrForEditors(attribute.first, known) && nearestOf(attribute.first, known) == wanted;
    });
}

const std::vector<std::string>& rootAttributes() {
    static const std::vector<std::string> names{"version", "productID", "macAddress"};
    return names;
}

const std::vector<std::string>& jobNames() {
    static const std::vector<std::string> names{"nvm", "custom", "firmware", "settings", "scenario", "provisioning"};
    return names;
}

const std::vector<std::string>& itemNames() {
    static const std::vector<std::string> names{"param", "file", "step", "category"};
    return names;
}

const std::vector<std::string>& attributesOfItem(const std::string& itemName) {
    static const std::map<std::string, std::vector<std::string>> attributes{
        {"param", {"name", "value", "flags"}},
        {"file", {"version", "url", "flags"}},
        {"step", {"type", "url", "flags", "renewPeriod"}},
        {"category", {"type", "url"}}};
    static const std::vector<std::string> unknown;
    const auto found = attributes.find(itemName);
    return found == attributes.end() ? unknown : found->second;
}

void checkAttributes(Checks& checks) {
    const Document& document = checks.document;
    checkElement(checks, 0, document.attributesOf(0), rootAttributes());
    for (const WalkLevel& level : document.levels()) {
        if (level.parent != none && level.parent != 0) {
            const zav::Attributes attributes = document.attributesOf(level.parent);
            const bool isItem = !attributesOfItem(document.nameOf(level.parent)).empty();
            if (!isItem && document.hasElements(level.parent)) checkElement(checks, level.parent, attributes, {});
        }
        if (level.job == none) continue;
        const zav::JobDescription& job = document.jobs()[level.job];
        const std::vector<std::string>& known = attributesOfItem(job.itemName);
        if (known.empty()) continue;  // the name itself is reported
        for (std::size_t index = 0; index < job.items.size(); ++index) {
            const zav::Attributes& item = job.items[index];
            const bool isKnown = std::all_of(item.begin(), item.end(), [&](const auto& attribute) {
                return std::find(known.begin(), known.end(), attribute.first) != known.end();
            });
            if (!isKnown) checkElement(checks, level.items[index], item, known);
        }
    }
}

}  // namespace lint
