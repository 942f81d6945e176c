#include "pack/Pack.h"

#include <algorithm>
#include <optional>
#include <set>

#include "pack/Checks.h"
#include "pack/Container.h"
#include "pack/Error.h"
#include "pack/FileKind.h"
#include "pack/Files.h"
#include "pack/Key.h"
#include "pack/Output.h"
#include "pack/Parallel.h"
#include "pack/Published.h"

namespace pack {

namespace {

enum class Action { none, encrypt, copy };

// In this order a phone that asks meanwhile never finds an initial file whose references are not there yet.
enum class Rank { copied, jobFile, initial };

struct Step {
    Action action = Action::none;
    Rank rank = Rank::copied;
    FileState state;  // when it was checked
    std::vector<Finding> findings;
};

class Packing {
 public:
    explicit Packing(const Options& options) : options_(options) {
        checkFolders(options.from, options.to, options.keyFile);
        Key key = readKey(options.keyFile);
        passPhrase_ = std::move(key.passPhrase);
        result_.warnings = std::move(key.warnings);
    }

    Result run() {
        list();
        std::vector<Step> steps(files_.size());
        forEach(
            files_.size(), [&](std::size_t index) { steps[index] = examine(files_[index]); },
            [&](std::size_t done) { show(done, files_.size()); });
        if (!report(steps)) return std::move(result_);
        findVanished();
        if (!options_.dryRun) write(steps);
        return std::move(result_);
    }

 private:
    void list() {
        Folder folder = listFolder(options_.from);
        if (folder.files.empty() && folder.problems.empty()) throw Error(options_.from, "holds no files to publish");
        files_ = std::move(folder.files);
        result_.hidden = std::move(folder.hidden);
        for (Problem& one : folder.problems) {
            result_.findings.push_back({std::move(one.file), 0, true, std::move(one.reason), false});
        }
    }

    Step examine(const std::string& name) const {
        Step step;
        try {
            examine(name, step);
        } catch (const Error& error) {
            step.findings.push_back({name, 0, true, error.what(), false});
        }
        return step;
    }

    void examine(const std::string& name, Step& step) const {
        const std::string path = sourceOf(name);
        step.state = stateOf(path);
        const std::string blocked = obstacle(options_.to, name);
        if (!blocked.empty()) step.findings.push_back({name, 0, true, blocked, false});
        const std::string bytes = readBeginning(path, maxProvisioningFileBytes);
        const Classification kind = classify(name, bytes);
        if (!kind.problem.empty()) step.findings.push_back({name, 0, true, kind.problem});
        // A file that only seems meant to be one may hold secrets as well.
        if (kind.kind == FileKind::provisioning || !kind.problem.empty()) {
            examineProvisioning(name, kind, bytes, step);
            return;
        }
        if (kind.kind == FileKind::encrypted && !decrypt(readFile(path, maxProvisioningFileBytes), passPhrase_)) {
            step.findings.push_back({name, 0, true, "is already encrypted, and not with this key"});
        }
        if (!sameContent(path, publishedPath(name))) step.action = Action::copy;
    }

    void examineProvisioning(const std::string& name, const Classification& kind, const std::string& bytes,
                             Step& step) const {
        if (encryptedSize(step.state.size) > maxProvisioningFileBytes) {
            step.findings.push_back({name, 0, true, "is too large: phones refuse more than 16 MiB, encrypted"});
        }
        if (options_.check && kind.problem.empty()) {
            std::vector<Finding> found = options_.check(name, bytes);
            step.findings.insert(step.findings.end(), found.begin(), found.end());
        }
        step.rank = kind.root == "provisioning" ? Rank::initial : Rank::jobFile;
        if (!isPublished(publishedPath(name), bytes, passPhrase_)) step.action = Action::encrypt;
    }

    // Whether the files may be published.
    bool report(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            result_.findings.insert(result_.findings.end(), step.findings.begin(), step.findings.end());
        }
        result_.refused = std::any_of(result_.findings.begin(), result_.findings.end(), [this](const Finding& finding) {
            return finding.isError && !(options_.force && finding.canBeForced);
        });
        if (result_.refused) return false;
        for (std::size_t index = 0; index < steps.size(); ++index) {
            const Action action = steps[index].action;
            if (action == Action::none) ++result_.unchanged;
            if (action == Action::encrypt) result_.encrypted.push_back(files_[index]);
            if (action == Action::copy) result_.copied.push_back(files_[index]);
        }
        return true;
    }

    void findVanished() {
        const std::set<std::string> current(files_.begin(), files_.end());
        for (const std::string& name : listPublished(options_.to)) {
            if (current.count(name) > 0) continue;
            (options_.removeVanished ? result_.removed : result_.vanished).push_back(name);
        }
    }

    void write(const std::vector<Step>& steps) {
        std::vector<std::size_t> order;
        for (std::size_t index = 0; index < steps.size(); ++index) {
            if (steps[index].action != Action::none) order.push_back(index);
        }
        if (order.empty() && result_.removed.empty()) return;
        std::stable_sort(order.begin(), order.end(),
                         [&steps](std::size_t one, std::size_t other) { return steps[one].rank < steps[other].rank; });
        Output output(options_.to, Access::everybody);
        std::vector<Staged> staged(order.size());
        forEach(
            order.size(), [&](std::size_t at) { staged[at] = stage(output, files_[order[at]], steps[order[at]]); },
            [&](std::size_t done) { show(done, order.size()); });
        output.publish(staged, [&](std::size_t done) { show(done, order.size()); });
        output.remove(result_.removed);
    }

    Staged stage(Output& output, const std::string& name, const Step& step) const {
        const std::string path = sourceOf(name);
        Staged staged = step.action == Action::copy
                            ? output.stageCopy(name, path)
                            : output.stage(name, encrypt(readFile(path, step.state.size), passPhrase_));
        if (!(stateOf(path) == step.state)) {
            throw Error(path, "has changed while it was being published; nothing was published, try again");
        }
        return staged;
    }

    void show(std::size_t done, std::size_t total) const {
        if (options_.progress) options_.progress(done, total);
    }

    std::string sourceOf(const std::string& name) const { return options_.from + "/" + name; }
    std::string publishedPath(const std::string& name) const { return options_.to + "/" + name; }

    const Options& options_;
    std::string passPhrase_;
    std::vector<std::string> files_;
    Result result_;
};

}  // namespace

Result pack(const Options& options) { return Packing(options).run(); }

}  // namespace pack
