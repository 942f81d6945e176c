// Writes the parameters of a settings job to the property service. Skips parameters of a function key that is locked
// against provisioning, and the lock flags themselves.
#pragma once

#include <map>
#include <stdexcept>

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

/// Whether the parameter belongs to a function key. If the name has the prefix and no valid index, throws
/// InvalidFormatException or what std::stoi throws.
bool isFunctionKeyParam(const std::string& name, const std::string& prefix);

}  // namespace zav
