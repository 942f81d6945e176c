#include "pack/Conversion.h"

#include <algorithm>
#include <utility>

#include "pack/Checks.h"
#include "pack/Error.h"
#include "pack/Parallel.h"

namespace pack {

std::string toText(const Finding& finding) {
    std::string text = finding.file;
    if (finding.line > 0) text += ":" + std::to_string(finding.line);
    if (finding.column > 0) text += ":" + std::to_string(finding.column);
    text += (finding.isError ? ": error: " : ": warning: ") + finding.text;
    return finding.rule.empty() ? text : text + " [" + finding.rule + "]";
}

Conversion::Conversion(const Options& options, Access access, std::vector<std::string> Result::*converted)
    : options_(options), access_(access), convertedFiles_(converted) {
    checkFolders(options.from, options.to, options.keyFile);
    key_ = readKey(options.keyFile);
    result_.warnings = key_.warnings;
}

void Conversion::list() {
    Folder folder = listFolder(options_.from);
    files_ = std::move(folder.files);
    result_.hidden = std::move(folder.hidden);
    for (Problem& one : folder.problems) {
        result_.findings.push_back({std::move(one.file), 0, true, std::move(one.reason), false});
    }
}

Conversion::Step Conversion::examined(const std::string& name) const {
    Step step;
    try {
        step.state = stateOf(sourceOf(name));
        const std::string blocked = obstacle(options_.to, name);
        if (!blocked.empty()) step.findings.push_back({name, 0, true, blocked, false});
        examine(name, step);
    } catch (const Error& error) {
        step.findings.push_back({name, 0, true, error.what(), false});
    }
    return step;
}

bool Conversion::examineAll() {
    steps_.resize(files_.size());
    forEach(
        files_.size(), [&](std::size_t index) { steps_[index] = examined(files_[index]); },
        [&](std::size_t done) { show(done, files_.size()); });
    for (const Step& step : steps_) {
        result_.findings.insert(result_.findings.end(), step.findings.begin(), step.findings.end());
    }
    result_.refused = std::any_of(result_.findings.begin(), result_.findings.end(), [this](const Finding& finding) {
        return finding.isError && !(options_.force && finding.canBeForced);
    });
    if (!result_.refused) count();
    return !result_.refused;
}

void Conversion::count() {
    for (std::size_t index = 0; index < steps_.size(); ++index) {
        const Action action = steps_[index].action;
        if (action == Action::none) ++result_.unchanged;
        if (action == Action::convert) (result_.*convertedFiles_).push_back(files_[index]);
        if (action == Action::copy) result_.copied.push_back(files_[index]);
    }
}

void Conversion::write() {
    std::vector<std::size_t> order;
    for (std::size_t index = 0; index < steps_.size(); ++index) {
        if (steps_[index].action != Action::none) order.push_back(index);
    }
    if (order.empty() && result_.removed.empty()) return;
    std::stable_sort(order.begin(), order.end(),
                     [this](std::size_t one, std::size_t other) { return steps_[one].rank < steps_[other].rank; });
    Output output(options_.to, access_);
    std::vector<Staged> staged(order.size());
    forEach(
        order.size(), [&](std::size_t at) { staged[at] = stage(output, order[at]); },
        [&](std::size_t done) { show(done, order.size()); });
    output.publish(staged, [&](std::size_t done) { show(done, order.size()); });
    output.remove(result_.removed);
}

Staged Conversion::stage(Output& output, std::size_t index) const {
    const std::string& name = files_[index];
    const Step& step = steps_[index];
    const std::string path = sourceOf(name);
    Staged staged =
        step.action == Action::copy ? output.stageCopy(name, path) : output.stage(name, converted(name, step));
    if (!(stateOf(path) == step.state)) {
        throw Error(path, "has changed while it was being read; nothing was written, try again");
    }
    return staged;
}

void Conversion::show(std::size_t done, std::size_t total) const {
    if (options_.progress) options_.progress(done, total);
}

}  // namespace pack
