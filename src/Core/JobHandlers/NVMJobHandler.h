// Writes the parameters of a settings job into the property service. Parameters of a function key are refused while
// the key is locked against provisioning; the lock flag itself can never be set by provisioning.
#pragma once

#include <map>

#include "Core/JobHandlers/JobHandler.h"

namespace zav {

class NVMJobHandler : public JobHandler {
 public:
    NVMJobHandler(const JobDescription& job, std::shared_ptr<Curl> curl, Security& security,
                  const std::shared_ptr<propertyapi::IPropertyApi>& properties, XMLReader& reader,
                  ProgressReporter& progressReporter, ProvisioningStatusReporter& statusReporter);

    /// Success when every parameter was written, fail when none was, partial success otherwise.
    int run() override;

    virtual void applyParams();
    virtual void applyFunctionKeyParam(const std::string& name, const std::string& value);
    virtual bool isFunctionKeyLocked(const std::string& index);

 private:
    void write(const std::string& name, const std::string& value);

    std::map<std::string, std::string> lockCache_;  // function-key index to lock flag, read once a job
    int total_ = 0;
    int applied_ = 0;
};

/// Whether the name addresses a function key. Throws InvalidFormatException, or what std::stoi throws, for one that
/// begins like it and has no index.
bool isFunctionKeyParam(const std::string& name, const std::string& prefix);

}  // namespace zav
