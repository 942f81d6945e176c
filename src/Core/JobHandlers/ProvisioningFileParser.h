// Decrypts a downloaded provisioning file, verifies that it is for this phone, and lists its jobs.
//
// Call parseInitialFile (initial file) or loadAndVerify (job file) first, and collectJobs only if it returned true.
// Threads: the pass thread only. The reader must outlive the parser.
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
    /// A file with more items yields no jobs.
    static constexpr std::size_t maximumItems = 250000;

    /// Decrypts the file in place, or leaves it as it is if that fails. Removes an existing file at the temporary name,
    /// `filePath` + ".tmp". Blocks for up to 10 s while openssl runs.
    ProvisioningFileParser(std::string filePath, XMLReader& reader,
                           std::shared_ptr<propertyapi::IPropertyApi> properties);
    virtual ~ProvisioningFileParser() = default;
    ProvisioningFileParser(const ProvisioningFileParser&) = delete;
    ProvisioningFileParser& operator=(const ProvisioningFileParser&) = delete;

    virtual bool loadAndVerify();

    /// loadAndVerify for the initial file; also sets the format version of the pass.
    virtual bool parseInitialFile();

    /// Appends the jobs of the document to `jobs`; always returns true. A file with more items than maximumItems, or
    /// than the pass has left, yields no jobs, but its items count against the pass.
    virtual bool collectJobs(std::vector<JobDescription>& jobs);

    /// Checks product, MAC address and format version of the loaded document.
    virtual bool verify();

 private:
    struct Walk;

    void decrypt();
    void reportDecryptionError() const;
    bool verifyProduct(const Attributes& root) const;
    bool verifyMacAddress(const Attributes& root) const;
    bool verifyVersion(const Attributes& root) const;
    void collectLevel(const std::string& parentName, bool atElement, Walk& walk);

    const std::string filePath_;
    XMLReader& reader_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
    const std::vector<std::string> verifiableRoots_;
    std::set<std::string> childNames_;
    std::string decryptionError_;  // set if no file can be decrypted: key unreadable, openssl not started
};

}  // namespace zav
