#include <algorithm>

#include "lint/Checks.h"
#include "lint/Spelling.h"

namespace lint {

namespace {

constexpr std::size_t maxQuoted = 80;

// The document element's.
const std::vector<std::string>& rootAttributes() {
    static const std::vector<std::string> names{"version", "productID", "macAddress"};
    return names;
}

// For other programs; every XML document may have them.
bool isForEditors(const std::string& attribute) {
    static const std::vector<std::string> names{
        "schemaLocation", "noNamespaceSchemaLocation", "lang", "space", "base", "id"};
    return std::find(names.begin(), names.end(), attribute) != names.end();
}

void checkElement(Checks& checks, std::size_t element, const zav::Attributes& attributes,
                  const std::vector<std::string>& known) {
    for (const auto& [attribute, value] : attributes) {
        if (std::find(known.begin(), known.end(), attribute) != known.end() || isForEditors(attribute)) continue;
        checks.add(RuleId::unknownAttribute, nameOf(element, attribute),
                   quoted(checks.document.nameOf(element)) + " has no attribute " + quoted(attribute),
                   suggestion(attribute, known));
    }
}

}  // namespace

std::string quoted(const std::string& text) {
    std::string shown = "\"";
    for (const char c : text) {
        // Not within a character of several bytes.
        if (shown.size() > maxQuoted && (static_cast<unsigned char>(c) & 0xC0U) != 0x80U) return shown + "...\"";
        const auto byte = static_cast<unsigned char>(c);
        shown += byte < 0x20 || byte == 0x7F ? ' ' : c;
    }
    return shown + "\"";
}

std::string suggestion(const std::string& misspelt, const std::vector<std::string>& names) {
    Nearest nearest(misspelt);
    for (const std::string& name : names) nearest.consider(name);
    return nearest.found().empty() ? "" : "write " + quoted(nearest.found());
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
