// Certificate files: reading them from the disk, and from PEM or DER to single certificates.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zav {

/// Whether a symbolic link may stand in for the file itself. The system's bundle is one on some machines; a file that
/// came from a server never is.
enum class Links { follow, refuse };

/// The bytes of a regular file. Throws std::system_error or std::runtime_error when it cannot be read, is no regular
/// file, or is longer than `limit` bytes. Never blocks on a pipe.
std::string readFile(const std::string& path, std::size_t limit, Links links);

struct Certificates {
    std::vector<std::string> der;
    std::size_t damaged = 0;  // certificate blocks that are no X.509
    std::size_t others = 0;   // blocks of another kind: keys, and certificates with settings of trust around them
};

/// Whether each certificate is parsed to see that it is one. That takes OpenSSL a tenth of a millisecond: too long for
/// the hundred and fifty of the system's bundle, which nobody edits by hand.
enum class Parse { yes, no };

/// The certificates in a PEM text; blocks of other kinds and text between them are passed over.
Certificates certificatesFromPem(const std::string& text, Parse parsed);

/// Whether `der` is one X.509 certificate, from its first byte to its last, whose dates include now.
bool isValidToday(const std::string& der);

}  // namespace zav
