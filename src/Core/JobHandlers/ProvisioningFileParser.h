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

/// The elements that may be the root of a provisioning file.
const std::vector<std::string>& verifiableRoots();

/// Whether files of this format version are accepted. Compared as strings: "1.05" is in range, "1.1.0" is not.
bool isFormatVersion(const std::string& version);

/// Whether a file's MAC address is the device's. Compares as many characters as the device's own address has, ignoring
/// case.
bool isMacAddressOf(const std::string& device, const std::string& address);

class ProvisioningFileParser {
 public:
    /// A file with more items yields no jobs.
    static constexpr std::size_t maximumItems = 250000;

    enum class Decryption { inPlace, none };

    /// Decrypts the file in place, or leaves it as it is if that fails. Removes an existing file at the temporary name,
    /// `filePath` + ".tmp". Blocks for up to 10 s while openssl runs. With Decryption::none the path is only a name:
    /// for a document that the reader has already loaded.
    ProvisioningFileParser(std::string filePath, XMLReader& reader,
                           std::shared_ptr<propertyapi::IPropertyApi> properties,
                           Decryption decryption = Decryption::inPlace);
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

 protected:
    /// Called when a job is dropped because its items have different names; logs it.
    virtual void reportMixedItems(const std::string& jobName);

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
    std::set<std::string> childNames_;
    std::string decryptionError_;  // set if no file can be decrypted: key unreadable, openssl not started
};

}  // namespace zav
