#include <algorithm>
#include <optional>

#include "pack/Checks.h"
#include "pack/Container.h"
#include "pack/Error.h"
#include "pack/FileKind.h"
#include "pack/Files.h"
#include "pack/Key.h"
#include "pack/Output.h"
#include "pack/Pack.h"
#include "pack/Parallel.h"
#include "pack/Published.h"

namespace pack {

namespace {

enum class Action { none, decrypt, copy };

struct Step {
    Action action = Action::none;
    std::vector<Finding> findings;
};

class Unpacking {
 public:
    explicit Unpacking(const Options& options) : options_(options) {
        checkFolders(options.from, options.to, options.keyFile);
        Key key = readKey(options.keyFile);
        passPhrase_ = std::move(key.passPhrase);
        result_.warnings = std::move(key.warnings);
    }

    Result run() {
        Folder folder = listFolder(options_.from);
        files_ = std::move(folder.files);
        result_.hidden = std::move(folder.hidden);
        for (Problem& one : folder.problems) {
            result_.findings.push_back({std::move(one.file), 0, true, std::move(one.reason), false});
        }
        std::vector<Step> steps(files_.size());
        forEach(
            files_.size(), [&](std::size_t index) { steps[index] = examine(files_[index]); },
            [&](std::size_t done) { show(done, files_.size()); });
        if (report(steps) && !options_.dryRun) write(steps);
        return std::move(result_);
    }

 private:
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
        const std::string target = options_.to + "/" + name;
        const std::string blocked = obstacle(options_.to, name);
        if (!blocked.empty()) step.findings.push_back({name, 0, true, blocked, false});
        const bool encrypted = isEncrypted(readBeginning(sourceOf(name), 16));
        const bool present = encrypted ? hasContent(target, plain(name)) : sameContent(sourceOf(name), target);
        if (present) return;
        step.action = encrypted ? Action::decrypt : Action::copy;
        if (blocked.empty() && exists(target)) {
            step.findings.push_back({name, 0, true, target + " exists and differs; --force replaces it"});
        }
    }

    static bool exists(const std::string& path) {
        try {
            stateOf(path);
            return true;
        } catch (const Error&) {
            return false;
        }
    }

    // A wrong key goes unnoticed by the container once in 256 times, but then what comes out is not text.
    std::string plain(const std::string& name) const {
        std::optional<std::string> bytes = decrypt(readFile(sourceOf(name), maxProvisioningFileBytes), passPhrase_);
        if (!bytes || !isReadable(*bytes)) throw Error("cannot be decrypted with this key");
        return std::move(*bytes);
    }

    // Whether the files may be written.
    bool report(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            result_.findings.insert(result_.findings.end(), step.findings.begin(), step.findings.end());
        }
        result_.refused = std::any_of(result_.findings.begin(), result_.findings.end(), [this](const Finding& finding) {
            return !(options_.force && finding.canBeForced);
        });
        if (result_.refused) return false;
        for (std::size_t index = 0; index < steps.size(); ++index) {
            const Action action = steps[index].action;
            if (action == Action::none) ++result_.unchanged;
            if (action == Action::decrypt) result_.decrypted.push_back(files_[index]);
            if (action == Action::copy) result_.copied.push_back(files_[index]);
        }
        return true;
    }

    void write(const std::vector<Step>& steps) {
        std::vector<std::size_t> order;
        for (std::size_t index = 0; index < steps.size(); ++index) {
            if (steps[index].action != Action::none) order.push_back(index);
        }
        if (order.empty()) return;
        Output output(options_.to, Access::owner);
        std::vector<Staged> staged(order.size());
        forEach(
            order.size(),
            [&](std::size_t at) {
                const std::string& name = files_[order[at]];
                staged[at] = steps[order[at]].action == Action::copy ? output.stageCopy(name, sourceOf(name))
                                                                     : output.stage(name, plain(name));
            },
            [&](std::size_t done) { show(done, order.size()); });
        output.publish(staged, [&](std::size_t done) { show(done, order.size()); });
    }

    void show(std::size_t done, std::size_t total) const {
        if (options_.progress) options_.progress(done, total);
    }

    std::string sourceOf(const std::string& name) const { return options_.from + "/" + name; }

    const Options& options_;
    std::string passPhrase_;
    std::vector<std::string> files_;
    Result result_;
};

}  // namespace

Result unpack(const Options& options) { return Unpacking(options).run(); }

}  // namespace pack
