// Reads and parses certificate files.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zav {

/// Whether readFile follows symbolic links. The system's bundle is a link on some machines; a downloaded file never is.
enum class Links { follow, refuse };

/// The content of a regular file. Throws std::runtime_error (std::system_error with the reason where there is one) if
/// it cannot be read, is not a regular file, or is longer than `limit` bytes. Does not block on a pipe.
std::string readFile(const std::string& path, std::size_t limit, Links links);

struct Certificates {
    std::vector<std::string> der;
    std::size_t damaged = 0;  // certificate blocks that are not X.509
    std::size_t others = 0;   // blocks of another kind: keys, trusted certificates (with OpenSSL's trust settings)
};

/// Whether each certificate is parsed to find damaged ones. That takes 0.1 ms each: too long for the 150 certificates
/// of the system's bundle, which is generated and not edited by hand.
enum class Parse { yes, no };

/// The certificates in a PEM text. Other blocks are counted, text between the blocks is ignored.
Certificates certificatesFromPem(const std::string& text, Parse parsed);

/// Whether `der` is exactly one X.509 certificate and its dates include now.
bool isValidToday(const std::string& der);

}  // namespace zav
