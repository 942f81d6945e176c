#include "lint/Passes.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <filesystem>
#include <functional>
#include <thread>
#include <utility>

#include "Core/JobHandlers/CustomScenarioJobHandler.h"
#include "Core/Pass.h"
#include "common/UrlSyntax.h"
#include "http/FileDownloader.h"
#include "lint/Checks.h"
#include "lint/Rules.h"
#include "xml/Library.h"

namespace lint {

namespace {

constexpr unsigned workers = 2;
constexpr char initialFileName[] = "provisioning.xml";

std::string baseNameOf(const std::string& name) { return name.substr(name.rfind('/') + 1); }

Role roleByName(const std::string& name) { return baseNameOf(name) == initialFileName ? Role::initial : Role::byRoot; }

Role roleOf(Reference::Kind kind) {
    if (kind == Reference::Kind::jobFile) return Role::jobFile;
    return kind == Reference::Kind::redirect ? Role::initial : Role::published;
}

bool isProvisioningFile(Reference::Kind kind) {
    return kind == Reference::Kind::jobFile || kind == Reference::Kind::published || kind == Reference::Kind::redirect;
}

std::string destinationOf(Reference::Kind kind) {
    if (kind == Reference::Kind::certificate) return zav::certificateDirectory;
    return kind == Reference::Kind::phoneBook ? zav::phoneBookDirectory : "/config/swupdate/";
}

bool isSame(const Finding& a, const Finding& b) {
    return std::tie(a.rule, a.line, a.column, a.message) == std::tie(b.rule, b.line, b.column, b.message);
}

}  // namespace

bool travelsReadable(const std::string& name, const Options& options) {
    const std::string& url = isUrl(name) ? name : options.baseUrl;
    return url.size() >= 5 && (url[0] | 0x20) == 'h' && url.find("://") == 4;
}

Passes::Passes(const std::vector<std::string>& files, const Options& options) : options_(options) {
    for (const std::string& name : files) {
        if (files_.emplace(name, File()).second) named_.push_back(name);
    }
    order_ = named_;
}

Report Passes::report() {
    const zav::xml::Library library;  // initialised once, not for each file
    inspectNamedFiles();
    // A file with another name may be an initial one by its root only. If a pass includes it, it is not.
    for (const std::string& name : named_) {
        if (roleByName(name) == Role::initial && isInitial(name)) runPass(name);
    }
    for (const std::string& name : named_) {
        if (reached_.count(name) == 0 && isInitial(name)) runPass(name);
    }
    // Files that no initial file leads to: what they refer to must be there all the same.
    for (const std::string& name : named_) {
        const File& file = files_[name];
        const bool isAlone = reached_.count(name) == 0 && file.ways.size() == 1;
        if (!isAlone) continue;
        Pass pass;
        pass.trail.push_back(name);
        const Inspection inspection = file.ways.begin()->second;
        follow(name, inspection, Site(name, options_), inspection.version, pass);
    }
    for (const std::string& name : named_) checkName(name);
    Report report;
    for (const std::string& name : order_) collect(name, files_[name], report);
    return report;
}

bool Passes::isInitial(const std::string& name) {
    const auto& ways = files_[name].ways;
    return std::any_of(ways.begin(), ways.end(), [](const auto& way) {
        return way.second.role == Role::initial && way.second.isProvisioningFile;
    });
}

void Passes::inspectNamedFiles() {
    std::vector<std::string> local;
    for (const std::string& name : order_) {
        if (!isUrl(name)) local.push_back(name);
    }
    std::vector<std::pair<Inspection, std::string>> results(local.size());
    std::atomic<std::size_t> next{0};
    std::array<std::exception_ptr, workers> failures;  // lack of memory
    const auto work = [&](std::exception_ptr& failure) {
        try {
            for (std::size_t index = next++; index < local.size(); index = next++) {
                const Circumstances around{roleByName(local[index]), "", travelsReadable(local[index], options_)};
                results[index].first = inspectFile(local[index], around, results[index].second);
            }
        } catch (...) {
            failure = std::current_exception();
        }
    };
    std::vector<std::thread> threads;
    for (unsigned worker = 1; worker < workers && worker < local.size(); ++worker)
        threads.emplace_back(work, std::ref(failures.at(worker)));
    work(failures.front());
    for (std::thread& thread : threads) thread.join();
    for (const std::exception_ptr& failure : failures) {
        if (failure) std::rethrow_exception(failure);
    }
    for (std::size_t index = 0; index < local.size(); ++index) {
        File& file = files_[local[index]];
        file.readError = std::move(results[index].second);
        if (!file.readError.empty()) throw LintException(local[index] + ": " + file.readError);
        Inspection& inspection = results[index].first;
        const Way way{inspection.role, "", travelsReadable(local[index], options_)};
        file.ways.emplace(way, std::move(inspection));
    }
    for (const std::string& name : order_) {
        if (!isUrl(name)) continue;
        const Circumstances around{roleByName(name), "", travelsReadable(name, options_)};
        std::string error;
        Inspection inspection = inspectFile(name, around, error);
        if (!error.empty()) throw LintException(name + ": " + error);
        const Way way{inspection.role, "", around.isReadableOnTheWay};
        files_[name].ways.emplace(way, std::move(inspection));
    }
}

Content Passes::read(const std::string& name) const {
    if (!isUrl(name)) return readFile(name);
    if (!options_.fetch) return {std::nullopt, "nothing is downloaded"};
    Fetched fetched = options_.fetch(name);
    return {std::move(fetched.bytes), std::move(fetched.error)};
}

Inspection Passes::inspectFile(const std::string& name, const Circumstances& circumstances, std::string& error) const {
    const Content content = read(name);
    if (content.bytes) return inspect(name, *content.bytes, options_, circumstances);
    error = content.error;
    return {};
}

// Null if it cannot be read. What was found for the same role is used again if the file has the version of the pass.
const Inspection* Passes::inspectionOf(const std::string& name, const Circumstances& circumstances) {
    const bool isNew = files_.count(name) == 0;
    File& file = files_[name];
    if (isNew) order_.push_back(name);
    for (auto& [way, inspection] : file.ways) {
        const auto& [role, version, isReadable] = way;
        const bool isSameVersion = version == circumstances.passVersion ||
                                   (version.empty() && inspection.version == circumstances.passVersion) ||
                                   circumstances.passVersion.empty();
        if (role == circumstances.role && isSameVersion && isReadable == circumstances.isReadableOnTheWay) {
            return &inspection;
        }
    }
    std::string error;
    Inspection inspection = inspectFile(name, circumstances, error);
    if (!error.empty()) {
        file.readError = error;
        return nullptr;
    }
    const Way way{circumstances.role, circumstances.passVersion, circumstances.isReadableOnTheWay};
    return &file.ways.insert_or_assign(way, std::move(inspection)).first->second;
}

void Passes::runPass(const std::string& initial) {
    Pass pass;
    pass.trail.push_back(initial);
    const Inspection* const inspection = inspectionOf(initial, {Role::initial, "", travelsReadable(initial, options_)});
    if (inspection == nullptr) return;
    reached_.insert(initial);
    pass.items = inspection->items;
    const Inspection copy = *inspection;
    follow(initial, copy, Site(initial, options_), copy.version, pass);
}

void Passes::follow(const std::string& name, const Inspection& inspection, const Site& site, const std::string& version,
                    Pass& pass) {
    for (const Reference& reference : inspection.references) followOne(name, reference, site, version, pass);
}

void Passes::followOne(const std::string& name, const Reference& reference, const Site& site,
                       const std::string& version, Pass& pass) {
    if (reference.isFetched && reference.kind != Reference::Kind::redirect && ++pass.files > zav::Pass::maximumFiles) {
        if (!pass.isOverFiles) {
            addFurther(name, RuleId::tooManyFiles, reference,
                       "The pass has downloaded " + std::to_string(zav::Pass::maximumFiles) + " files before");
        }
        pass.isOverFiles = true;
        return;
    }
    const Target target = site.resolve(reference.url, reference.kind);
    if (target.file.empty()) {
        addFurther(name, RuleId::notFollowed, reference,
                   quoted(common::withoutPassword(reference.url)) + " was not checked: " + target.reason);
        return;
    }
    if (!target.exists) {
        if (!isProvisioningFile(reference.kind)) otherFiles_.insert(target.file);
        if (reference.isFetched) {
            addFurther(name, RuleId::missingFile, reference, "There is no file " + quoted(target.file));
        }
        return;
    }
    if (!isProvisioningFile(reference.kind)) return checkOther(name, reference, target);
    if (std::find(pass.trail.begin(), pass.trail.end(), target.file) != pass.trail.end()) {
        addFurther(name, RuleId::includeLoop, reference, quoted(target.file) + " leads back to itself");
        return;
    }
    const bool isNewPass = reference.kind == Reference::Kind::redirect;
    const Inspection* const found =
        inspectionOf(target.file, {roleOf(reference.kind), isNewPass ? "" : version, target.isReadableOnTheWay});
    if (found == nullptr) {
        addFurther(name, RuleId::missingFile, reference, quoted(target.file) + " " + files_[target.file].readError);
        return;
    }
    reached_.insert(target.file);
    referredTo_.insert(target.file);
    if (isNewPass) redirectedTo_.insert(target.file);
    if (reference.isFetched) pass.items += found->items;
    if (pass.items > zav::Pass::maximumItems && !pass.isOverItems) {
        pass.isOverItems = true;
        addFurther(name, RuleId::tooManyPassItems, reference,
                   "With this file the pass has " + std::to_string(pass.items) + " items");
    }
    if (pass.trail.size() >= zav::Pass::maximumHandlerDepth) return;
    const Inspection inspection = *found;
    pass.trail.push_back(target.file);
    follow(target.file, inspection, site, isNewPass ? inspection.version : version, pass);
    pass.trail.pop_back();
}

// Certificates, phone books and images are not looked into.
void Passes::checkOther(const std::string& name, const Reference& reference, const Target& target) {
    otherFiles_.insert(target.file);
    const auto limit = zav::sizeLimitOf(destinationOf(reference.kind));
    if (!limit || target.size <= *limit) return;
    addFurther(
        name, RuleId::tooLarge, reference,
        quoted(target.file) + " has " + std::to_string(target.size) + " bytes; the limit is " + std::to_string(*limit));
}

void Passes::addFurther(const std::string& name, RuleId rule, const Reference& reference, const std::string& message) {
    const Rule& row = ruleOf(rule);
    Finding finding = reference.place;
    finding.level = row.level;
    finding.rule = row.id;
    finding.message = message;
    finding.fix = row.fix;
    std::vector<Finding>& further = files_[name].further;
    const bool isKnown =
        std::any_of(further.begin(), further.end(), [&](const Finding& one) { return isSame(one, finding); });
    if (!isKnown) further.push_back(std::move(finding));
}

// A folder may have both names on purpose.
void Passes::checkName(const std::string& name) {
    const std::string base = baseNameOf(name);
    if (base == initialFileName || strcasecmp(base.c_str(), initialFileName) != 0) return;
    std::error_code error;
    const std::string right = name.substr(0, name.size() - base.size()) + initialFileName;
    if (isUrl(name) || referredTo_.count(name) != 0 || std::filesystem::exists(right, error)) return;
    Finding finding;
    finding.level = ruleOf(RuleId::initialFileName).level;
    finding.rule = ruleOf(RuleId::initialFileName).id;
    finding.file = name;
    finding.message = "No phone asks for " + quoted(base);
    finding.fix = ruleOf(RuleId::initialFileName).fix;
    files_[name].further.push_back(std::move(finding));
}

void Passes::collect(const std::string& name, const File& file, Report& report) const {
    std::vector<Finding> found;
    const auto add = [&found](const Finding& finding) {
        const bool isKnown =
            std::any_of(found.begin(), found.end(), [&](const Finding& one) { return isSame(one, finding); });
        if (!isKnown) found.push_back(finding);
    };
    // What a file is when it is looked at by itself does not count if the phone comes to it in another way.
    const bool hasWay = reached_.count(name) != 0;
    const bool isIncluded =
        referredTo_.count(name) != 0 && redirectedTo_.count(name) == 0 && roleByName(name) != Role::initial;
    for (const auto& [way, inspection] : file.ways) {
        const bool isOnlyByItself = std::get<1>(way).empty() && (std::get<0>(way) != Role::initial || isIncluded);
        if (hasWay && isOnlyByItself && file.ways.size() > 1) continue;
        for (const Finding& finding : inspection.findings) {
            file.ways.size() > 1 ? add(finding) : found.push_back(finding);
        }
    }
    for (const Finding& finding : file.further) found.push_back(finding);
    if (found.empty() && file.ways.empty()) return;
    ++report.files;
    const bool isOther = otherFiles_.count(name) != 0 && !hasWay;
    const bool isForeignRoot = found.size() == 1 && found[0].rule == ruleOf(RuleId::unknownRoot).id;
    if (isOther) return;
    if (isForeignRoot && !hasWay && roleByName(name) != Role::initial &&
        found[0].fix == ruleOf(RuleId::unknownRoot).fix && named_.size() > 1) {
        const Rule& rule = ruleOf(RuleId::notProvisioning);
        found[0].level = rule.level;
        found[0].rule = rule.id;
        found[0].fix = rule.fix;
    }
    std::stable_sort(found.begin(), found.end(), [](const Finding& a, const Finding& b) {
        return std::make_pair(a.line, a.column) < std::make_pair(b.line, b.column);
    });
    report.findings.insert(report.findings.end(), found.begin(), found.end());
}

}  // namespace lint
