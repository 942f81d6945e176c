// A bundle of certificates in a file that stays open, so that its certificates need not be kept in memory. What
// replaces or removes the file has no effect. If it is overwritten or truncated, the certificates that it no longer has
// are not found, and what it has instead is never taken for them. Immutable; any thread.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "Certificates.h"
#include "common/Descriptor.h"

namespace zav {

class BundleFile {
 public:
    /// Opens the file, and follows symbolic links. Throws as readFile does.
    BundleFile(std::string path, std::size_t limit);

    const std::string& path() const { return path_; }

    /// Whether both are the same file, unchanged between the moments at which they were opened.
    bool sameAs(const BundleFile& other) const;

    /// The whole content. Throws as readFile does.
    std::string text() const;

    /// The certificate with this digest, in DER; `place` is where text() had it. Searches the whole file if it is not
    /// there, as after an update in place. Empty if the file no longer has it or cannot be read, which is logged as a
    /// warning. Does not throw.
    std::string find(const Digest& digest, Place place) const;

 private:
    const std::string path_;
    const std::size_t limit_;
    const common::Descriptor file_;
    const struct stat opened_;
};

}  // namespace zav
