#include "pack/Pack.h"

#include <set>
#include <utility>

#include "pack/Container.h"
#include "pack/Conversion.h"
#include "pack/Error.h"
#include "pack/FileKind.h"
#include "pack/Published.h"

namespace pack {

namespace {

class Packing final : public Conversion {
 public:
    explicit Packing(const Options& options) : Conversion(options, Access::everybody, &Result::encrypted) {}

    Result run() {
        list();
        if (files_.empty() && result_.findings.empty()) throw Error(options_.from, "holds no files to publish");
        if (!examineAll()) return std::move(result_);
        findVanished();
        if (!options_.dryRun) write();
        return std::move(result_);
    }

 private:
    void examine(const std::string& name, Step& step) const override {
        const std::string path = sourceOf(name);
        const std::string bytes = readBeginning(path, maxProvisioningFileBytes);
        if (isKey(bytes, key_)) {
            throw Error("holds the key of the phones (" + options_.keyFile +
                        "), which must not be published; move it out of the folder");
        }
        const Classification kind = classify(name, bytes);
        if (!kind.problem.empty()) step.findings.push_back({name, 0, true, kind.problem});
        // A file that only seems meant to be one may hold secrets as well.
        if (kind.kind == FileKind::provisioning || !kind.problem.empty()) {
            examineProvisioning(name, kind, bytes, step);
            return;
        }
        if (kind.kind == FileKind::encrypted && !decrypt(readFile(path, maxProvisioningFileBytes), key_.passPhrase)) {
            step.findings.push_back({name, 0, true, "is already encrypted, and not with this key"});
        }
        if (!sameContent(path, targetOf(name))) step.action = Action::copy;
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
        if (!isPublished(targetOf(name), bytes, key_.passPhrase)) step.action = Action::convert;
    }

    std::string converted(const std::string& name, const Step& step) const override {
        return encrypt(readFile(sourceOf(name), step.state.size), key_.passPhrase);
    }

    void findVanished() {
        const std::set<std::string> current(files_.begin(), files_.end());
        for (const std::string& name : listPublished(options_.to)) {
            if (current.count(name) > 0) continue;
            (options_.removeVanished ? result_.removed : result_.vanished).push_back(name);
        }
    }
};

}  // namespace

Result pack(const Options& options) { return Packing(options).run(); }

}  // namespace pack
