#include <algorithm>
#include <set>
#include <stdexcept>

#include "Core/JobHandlers/CustomScenarioJobHandler.h"
#include "Core/JobHandlers/JobHandlerFactory.h"
#include "Core/JobHandlers/MasterJobHandler.h"
#include "Core/Pass.h"
#include "Core/Utils.h"
#include "lint/Checks.h"
#include "version/FirmwareVersion.h"

namespace lint {

namespace {

constexpr char forceAccept[] = "FORCE_ACCEPT";

bool contains(const std::vector<std::string>& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::size_t elementOf(const Job& job) { return job.level.parent == none ? 0 : job.level.parent; }

void checkFlags(Checks& checks, const zav::Attributes& item, std::size_t element) {
    const auto flags = item.find("flags");
    if (flags == item.end() || flags->second == forceAccept || flags->second.empty()) return;
    checks.add(RuleId::unknownFlag, valueOf(element, "flags"), "There is no flag " + quoted(flags->second),
               suggestion(flags->second, {forceAccept}));
}

bool isAllowed(const std::string& version, const zav::JobDescription& job) {
    const zav::AllowedJobs& allowed = zav::allowedJobs(version);
    return std::find(allowed.begin(), allowed.end(), std::make_pair(job.name, job.itemName)) != allowed.end();
}

void checkNames(Checks& checks, const Job& job) {
    const std::string& name = job.description.name;
    const std::string& item = job.description.itemName;
    if (checks.role == Role::published) {
        const bool isKnown = zav::JobHandlerFactory::kindOf(name, item) != zav::JobKind::unknown;
        if (!isKnown) {
            checks.add(RuleId::unknownJob, {elementOf(job)},
                       "A published file has no job " + quoted(name) + " of " + quoted(item),
                       suggestion(name, {"settings", "scenario"}));
        }
        return;
    }
    // A version that allows no job is reported by itself.
    if (isAllowed(checks.version, job.description) || zav::allowedJobs(checks.version).empty()) return;
    const std::string effect = ": the job is left out";
    if (!contains(jobNames(), name)) {
        checks.add(RuleId::unknownElement, {elementOf(job)}, "There is no job " + quoted(name) + effect,
                   suggestion(name, jobNames()));
    } else if (!contains(itemNames(), item) && item != name) {
        checks.add(RuleId::unknownElement, {job.level.items.back()}, "There is no item " + quoted(item) + effect,
                   suggestion(item, itemNames()));
    } else if (item != name) {
        checks.add(RuleId::jobNotAllowed, {elementOf(job)},
                   "Format " + checks.version + " has no " + quoted(name) + " of " + quoted(item) + " items" + effect);
    }
}

void checkContents(Checks& checks, const Job& job) {
    switch (zav::JobHandlerFactory::kindOf(job.description.name, job.description.itemName)) {
        case zav::JobKind::categories:
            return checkCategories(checks, job);
        case zav::JobKind::files:
            return checkFiles(checks, job);
        case zav::JobKind::settings:
            return checkSettings(checks, job);
        case zav::JobKind::scenario:
            return checkSteps(checks, job);
        case zav::JobKind::firmware:
            return checkFirmware(checks, job);
        case zav::JobKind::unknown:
            break;
    }
}

}  // namespace

const std::string* needed(Checks& checks, const zav::Attributes& item, std::size_t element, const char* attribute) {
    const auto found = item.find(attribute);
    if (found != item.end()) return &found->second;
    if (isMisspelt(item, attribute, attributesOfItem(checks.document.nameOf(element)))) return nullptr;
    checks.add(RuleId::missingAttribute, {element},
               quoted(checks.document.nameOf(element)) + " has no " + quoted(attribute),
               "add " + std::string(attribute));
    return nullptr;
}

void checkJobs(Checks& checks) {
    for (const WalkLevel& level : checks.document.levels()) {
        if (level.job == none) continue;
        const Job job{checks.document.jobs()[level.job], level};
        checkNames(checks, job);
        // What is in a job of the other format is checked all the same: it must be corrected, too.
        const bool isOfAnyFormat = isAllowed("1.0", job.description) || isAllowed("1.1", job.description);
        if (isOfAnyFormat || checks.role == Role::published) checkContents(checks, job);
    }
}

void checkCategories(Checks& checks, const Job& job) {
    std::set<std::string> seen;
    for (std::size_t index = 0; index < job.description.items.size(); ++index) {
        const zav::Attributes& item = job.description.items[index];
        const std::size_t element = job.level.items[index];
        const std::string* const type = needed(checks, item, element, "type");
        const std::string* const url = needed(checks, item, element, "url");
        if (type != nullptr) {
            const std::vector<std::string>& types = zav::MasterJobHandler::supportedJobTypes();
            if (!contains(types, *type)) {
                checks.add(RuleId::unknownCategory, valueOf(element, "type"), "There is no category " + quoted(*type),
                           suggestion(*type, types));
                continue;
            }
            if (!seen.insert(*type).second) {
                checks.add(RuleId::duplicateCategory, valueOf(element, "type"),
                           "The category " + quoted(*type) + " is listed before");
            }
        }
        if (url != nullptr) checkUrl(checks, element, "url", *url, UrlUse::jobFile);
    }
}

void checkFiles(Checks& checks, const Job& job) {
    const std::vector<zav::Attributes>& items = job.description.items;
    std::set<std::string> seen;
    std::string newest;
    try {
        newest = zav::newestUrl(job.description);
    } catch (const std::out_of_range&) {  // the missing URL is reported below
    }
    std::size_t unversioned = none;
    bool hasTime = false;
    bool hasV = false;
    for (std::size_t index = 0; index < items.size(); ++index) {
        const zav::Attributes& item = items[index];
        const std::size_t element = job.level.items[index];
        const auto version = item.find("version");
        if (unversioned == none && version == item.end()) unversioned = index;
        if (version != item.end()) {
            const std::string& text = version->second;
            if (!zav::isValidVersion(text)) {
                checks.add(RuleId::fileVersion, valueOf(element, "version"),
                           "Version " + quoted(text) + " is malformed");
            } else if (!seen.insert(text).second) {
                checks.add(RuleId::duplicateVersion, valueOf(element, "version"),
                           "Version " + quoted(text) + " is listed before");
            } else {
                const bool isV = text.front() == 'V';
                if (isV ? hasTime && !hasV : hasV && !hasTime) {
                    checks.add(RuleId::mixedVersions, valueOf(element, "version"),
                               "Time stamps and V versions are mixed: V versions are always newer");
                }
                (isV ? hasV : hasTime) = true;
            }
        }
        const std::string* const url = needed(checks, item, element, "url");
        if (url != nullptr) checkUrl(checks, element, "url", *url, UrlUse::published, *url == newest);
    }
    for (std::size_t index = 0; unversioned != none && index < items.size(); ++index) {
        if (index == unversioned) continue;
        checks.add(RuleId::neverChosen, {job.level.items[index]},
                   "This file is never chosen: the one without a version " +
                       std::string(index < unversioned ? "behind" : "before") + " it is");
    }
}

void checkFirmware(Checks& checks, const Job& job) {
    const std::vector<zav::Attributes>& items = job.description.items;
    if (items.size() != 1) {
        checks.add(RuleId::firmwareCount, {job.level.items[1]},
                   "The job offers " + std::to_string(items.size()) + " files");
    }
    for (std::size_t index = 0; index < items.size(); ++index) {
        const std::size_t element = job.level.items[index];
        const std::string* const version = needed(checks, items[index], element, "version");
        if (version != nullptr && !version::FirmwareVersion(*version).isValid()) {
            checks.add(RuleId::firmwareVersion, valueOf(element, "version"),
                       "Firmware version " + quoted(*version) + " is malformed");
        }
        const std::string* const url = needed(checks, items[index], element, "url");
        if (url != nullptr) checkUrl(checks, element, "url", *url, UrlUse::firmware);
        checkFlags(checks, items[index], element);
    }
}

void checkSteps(Checks& checks, const Job& job) {
    for (std::size_t index = 0; index < job.description.items.size(); ++index) {
        const zav::Attributes& item = job.description.items[index];
        const std::size_t element = job.level.items[index];
        const std::string* const type = needed(checks, item, element, "type");
        if (type == nullptr) continue;
        if (!contains(zav::CustomScenarioJobHandler::stepTypes(), *type)) {
            checks.add(RuleId::unknownStep, valueOf(element, "type"), "There is no step " + quoted(*type),
                       suggestion(*type, zav::CustomScenarioJobHandler::stepTypes()));
            continue;
        }
        if (*type == "UnlockAllFunctionKeys") {
            checks.add(RuleId::unlockStep, valueOf(element, "type"), "The step does not unlock keys for settings jobs");
            continue;
        }
        const std::string* const url = needed(checks, item, element, "url");
        const UrlUse use = *type == "Redirect"      ? UrlUse::redirect
                           : *type == "certificate" ? UrlUse::certificate
                                                    : UrlUse::phoneBook;
        if (url != nullptr) checkUrl(checks, element, "url", *url, use);
        checkFlags(checks, item, element);
        const std::string period = zav::attributeOr(item, "renewPeriod", "");
        if (period.empty()) continue;
        const std::string effect = periodEffect(period);
        if (!effect.empty()) checks.add(RuleId::renewPeriod, valueOf(element, "renewPeriod"), effect);
    }
}

std::string periodEffect(const std::string& period) {
    try {
        const std::string seconds = std::to_string(zav::checkPeriod(period));
        return seconds == period ? "" : quoted(period) + " is taken for " + seconds + " seconds";
    } catch (const std::logic_error&) {  // not a number
        return quoted(period) + " is not a number of seconds";
    }
}

}  // namespace lint
