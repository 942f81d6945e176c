// Names and dates of the certificates in a PEM file.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace zav {

struct CertificateFile {
    struct Entry {
        std::string subject;
        std::chrono::system_clock::time_point expires;
    };

    std::vector<Entry> certificates;
    std::size_t damaged = 0;

    /// A missing file has none. Throws std::system_error if the file cannot be opened.
    explicit CertificateFile(const std::string& path);
};

}  // namespace zav
