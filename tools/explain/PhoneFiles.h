// The file system of the phone in memory: a temporary root for all its paths, with links to what this machine supplies
// (the pass phrase, trusted certificates, the phone's own certificate). Removes it at its end.
#pragma once

#include <string>

#include "common/TemporaryFolder.h"

namespace explain {

class PhoneFiles {
 public:
    /// `keyFile` is empty if the phone has no pass phrase. Throws ExplainException.
    explicit PhoneFiles(const std::string& keyFile);
    PhoneFiles(const PhoneFiles&) = delete;
    PhoneFiles& operator=(const PhoneFiles&) = delete;
    ~PhoneFiles();

    /// The text with the phone's paths in place of those below the root.
    std::string withPhonePaths(std::string text) const;

 private:
    void link(const std::string& target, const std::string& path) const;

    const common::TemporaryFolder folder_;
};

}  // namespace explain
