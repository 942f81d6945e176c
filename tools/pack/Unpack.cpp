#include <optional>
#include <utility>

#include "pack/Container.h"
#include "pack/Conversion.h"
#include "pack/Error.h"
#include "pack/FileKind.h"
#include "pack/Pack.h"
#include "pack/Published.h"

namespace pack {

namespace {

class Unpacking final : public Conversion {
 public:
    explicit Unpacking(const Options& options) : Conversion(options, Access::owner, &Result::decrypted) {}

    Result run() {
        list();
        if (examineAll() && !options_.dryRun) write();
        return std::move(result_);
    }

 private:
    void examine(const std::string& name, Step& step) const override {
        const std::string target = targetOf(name);
        const bool encrypted = isEncrypted(readBeginning(sourceOf(name), 16));
        const bool present = encrypted ? hasContent(target, plain(name)) : sameContent(sourceOf(name), target);
        if (present) return;
        step.action = encrypted ? Action::convert : Action::copy;
        if (step.findings.empty() && exists(target)) {
            step.findings.push_back({name, 0, true, target + " exists and differs; --force replaces it"});
        }
    }

    std::string converted(const std::string& name, const Step& /*step*/) const override { return plain(name); }

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
        std::optional<std::string> bytes = decrypt(readFile(sourceOf(name), maxProvisioningFileBytes), key_.passPhrase);
        if (!bytes || !isReadable(*bytes)) throw Error("cannot be decrypted with this key");
        return std::move(*bytes);
    }
};

}  // namespace

Result unpack(const Options& options) { return Unpacking(options).run(); }

}  // namespace pack
