#include <algorithm>
#include <map>

#include "lint/Checks.h"

namespace lint {

namespace {

bool contains(const std::vector<std::string>& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// Elements that have something inside, but no elements.
void checkContent(Checks& checks) {
    const Document& document = checks.document;
    for (std::size_t element = 1; element < document.elementCount(); ++element) {
        if (!document.hasContent(element) || document.hasElements(element)) continue;
        const std::string name = document.nameOf(element);
        const zav::Attributes attributes = document.attributesOf(element);
        const bool isItem = contains(itemNames(), name);
        const bool hasText = document.hasText(element);
        if (isItem ? hasText && attributes.count("value") == 0 && name == "param" : hasText && attributes.empty()) {
            checks.add(RuleId::valueAsText, {element}, "The text inside " + quoted(name) + " is ignored");
        } else if (isItem || !attributes.empty()) {
            checks.add(RuleId::itemContent, {element},
                       quoted(name) + " is skipped: " + (hasText ? "text" : "something") + " stands inside it");
        }
    }
}

void checkEmptyItems(Checks& checks, const WalkLevel& level) {
    for (const std::size_t leaf : level.leaves) {
        if (std::find(level.items.begin(), level.items.end(), leaf) != level.items.end()) continue;
        const std::string name = checks.document.nameOf(leaf);
        if (level.items.empty() && !contains(itemNames(), name)) continue;  // an empty job: nothing is lost
        checks.add(RuleId::emptyItem, {leaf}, quoted(name) + " has no attributes");
    }
}

std::string parentNameOf(const Document& document, const WalkLevel& level) {
    return document.nameOf(level.parent == none ? 0 : level.parent);
}

// The leaf whose name stands out: unknown, or the rarest.
std::size_t oddOne(const Document& document, const WalkLevel& level) {
    std::map<std::string, std::size_t> counts;
    for (const std::size_t leaf : level.leaves) ++counts[document.nameOf(leaf)];
    if (counts.size() < 2) return none;
    std::size_t odd = none;
    std::pair<bool, std::size_t> least;
    for (const std::size_t leaf : level.leaves) {
        const std::string name = document.nameOf(leaf);
        const std::pair<bool, std::size_t> weight{contains(itemNames(), name), counts[name]};
        // Of equals the later one: it was added to what was there.
        const bool isFirstOfItsName = odd == none || document.nameOf(odd) != name;
        if (isFirstOfItsName && (odd == none || weight <= least)) {
            odd = leaf;
            least = weight;
        }
    }
    return odd;
}

void reportMixed(Checks& checks, const WalkLevel& level) {
    const Document& document = checks.document;
    const std::string job = parentNameOf(document, level);
    const std::size_t odd = oddOne(document, level);
    if (level.foreign != none) {
        checks.add(RuleId::instruction, {level.foreign, "", false, true},
                   "The job " + quoted(job) + " is dropped: its children are not only elements");
    } else if (odd != none) {
        const std::string name = document.nameOf(odd);
        std::string other;
        for (const std::size_t leaf : level.leaves) {
            if (document.nameOf(leaf) != name) other = document.nameOf(leaf);
        }
        const std::string fix = contains(itemNames(), name) ? "" : suggestion(name, itemNames());
        checks.add(RuleId::mixedItems, {odd},
                   "The job " + quoted(job) + " is dropped: it has " + quoted(name) + " among " + quoted(other), fix);
    } else {
        checks.add(RuleId::itemsBehindJob, {level.items.back()},
                   "The job " + quoted(job) + " is dropped: " + quoted(document.nameOf(level.items.back())) +
                       " follows an element that has content");
    }
}

void reportHidden(Checks& checks, const WalkLevel& level) {
    const std::string& name = checks.document.jobs()[level.job].itemName;
    for (const std::size_t item : level.items) {
        const std::string other = checks.document.nameOf(item);
        if (other == name) continue;
        checks.add(RuleId::hiddenMix, {item}, quoted(other) + " is taken for " + quoted(name));
        return;
    }
}

// Only the topmost of a subtree.
void checkVisits(Checks& checks) {
    const Document& document = checks.document;
    std::vector<bool> isReported(document.elementCount(), false);
    for (std::size_t element = 1; element < document.elementCount(); ++element) {
        const std::size_t parent = document.parentOf(element);
        const unsigned visits = document.visitsOf(element);
        const bool parentIsReported = parent != none && isReported[parent];
        isReported[element] = parentIsReported || visits != 1;
        if (parentIsReported || visits == 1) continue;
        const std::string name = quoted(document.nameOf(element));
        if (visits == 0) {
            checks.add(RuleId::lostElement, {element}, name + " is lost: it stands behind a deeper tree");
        } else {
            checks.add(RuleId::repeatedElement, {element},
                       name + " is taken " + std::to_string(visits) + " times: it stands behind a deeper tree");
        }
    }
}

}  // namespace

void checkShape(Checks& checks) {
    checkContent(checks);
    if (checks.document.exceedsLimits()) {
        checks.add(RuleId::tooManyItems, {},
                   "The file has " + std::to_string(checks.document.itemCount()) + " items or is nested too heavily");
        return;
    }
    for (const WalkLevel& level : checks.document.levels()) {
        if (level.items.size() != level.leaves.size()) checkEmptyItems(checks, level);
        if (level.isMixed) reportMixed(checks, level);
        if (level.job != none) reportHidden(checks, level);
    }
    checkVisits(checks);
}

}  // namespace lint
