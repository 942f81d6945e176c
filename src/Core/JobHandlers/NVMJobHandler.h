// Writes the parameters of a settings job to the property service. Skips parameters of a function key that is locked
// against provisioning, and the lock flags themselves.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

/// Thrown for a malformed parameter name in a provisioning file.
class InvalidFormatException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

class NVMJobHandler : public JobHandler {
 public:
    /// Takes the arguments of JobHandler.
    template <typename... Shared>
    explicit NVMJobHandler(const JobDescription& job, Shared&&... shared)
        : JobHandler(job, std::forward<Shared>(shared)...) {
        handlerName_ = "NVMJobHandler";
    }

    /// jobSuccess if every parameter was written, jobFail if none was, jobPartSuccess otherwise.
    int run() override;

    virtual void applyParams();
    virtual void applyFunctionKeyParam(const std::string& name, const std::string& value);
    virtual bool isFunctionKeyLocked(const std::string& index);

 private:
    void write(const std::string& name, const std::string& value);

    std::map<std::string, std::string> lockCache_;  // function-key index to lock flag, read once per job
    int total_ = 0;
    int applied_ = 0;
};

/// Parameters of function keys: prefix, index, ".", the parameter's own name, which for the lock flag is the postfix.
/// The flag that is looked at is another property.
inline const std::string functionKeyPrefix = "PhoneUI.Keys.FunctionKeys.";
inline const std::string lockPostfix = "LockProvisioning";
std::string lockKeyOf(const std::string& index);

/// Index and own name of a function key's parameter. Throws InvalidFormatException if there is no index.
std::pair<const std::string, const std::string> getIndexAndPostfix(const std::string& name, const std::string& prefix);

/// Whether the parameter belongs to a function key. If the name has the prefix and no valid index, throws
/// InvalidFormatException or what std::stoi throws.
bool isFunctionKeyParam(const std::string& name, const std::string& prefix);

}  // namespace zav
