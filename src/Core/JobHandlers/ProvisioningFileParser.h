// One downloaded provisioning file: decrypted in place, verified against this device, and turned into a list of jobs.
//
// Construct; then parseInitialFile for the initial file or loadAndVerify for a job file; then, only if that was true,
// collectJobs. Runs on the pass thread. The reader belongs to the caller and outlives the parser.
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Core/JobHandlers/JobDescription.h"
#include "propertyapi/IPropertyApi.h"
#include "xml/XMLReader.h"

namespace zav {

class ProvisioningFileParser {
 public:
    /// What one file may yield; beyond it the file yields no job.
    static constexpr std::size_t maximumItems = 250000;

    /// Decrypts the file where it lies; one that cannot be decrypted stays as it was downloaded. Whatever stands at the
    /// name of the temporary file is removed first. Blocks for a command, 10 s at most.
    ProvisioningFileParser(std::string filePath, XMLReader& reader,
                           std::shared_ptr<propertyapi::IPropertyApi> properties);
    virtual ~ProvisioningFileParser() = default;
    ProvisioningFileParser(const ProvisioningFileParser&) = delete;
    ProvisioningFileParser& operator=(const ProvisioningFileParser&) = delete;

    virtual bool loadAndVerify();

    /// The same for the file that a pass begins with; it sets the version of the pass.
    virtual bool parseInitialFile();

    /// Appends the jobs of the document to `jobs`. Always true. A file that lists more than maximumItems, or more than
    /// the pass may still read, yields no job; what was read of it counts for the pass all the same.
    virtual bool collectJobs(std::vector<JobDescription>& jobs);

    /// Product, MAC address and version of the loaded document.
    virtual bool verify();

 private:
    struct Walk;

    void decrypt();
    void reportWhyNotDecrypted() const;
    bool verifyProduct(const Attributes& root) const;
    bool verifyMacAddress(const Attributes& root) const;
    bool verifyVersion(const Attributes& root) const;
    void collectLevel(const std::string& parentName, bool atElement, Walk& walk);

    const std::string filePath_;
    XMLReader& reader_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    const std::vector<std::string> verifiableRoots_;
    std::set<std::string> childNames_;
    std::string notDecryptable_;  // why no file at all could be decrypted; empty: because of this one, if at all
};

}  // namespace zav
