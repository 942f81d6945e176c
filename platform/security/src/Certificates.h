// Reads and parses certificate files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zav {

/// Whether symbolic links are followed. The system's bundle is a link on some machines; a downloaded file never is.
enum class Links { follow, refuse };

/// Opens a regular file of at most `limit` bytes and returns the descriptor, which the caller owns. Throws
/// std::runtime_error (std::system_error with the reason where there is one). Does not block on a pipe.
int openFile(const std::string& path, std::size_t limit, Links links);

/// The whole content of an open file, whose `path` is for the error text. Throws as openFile does.
std::string contentOf(int file, const std::string& path, std::size_t limit);

/// The content of a regular file. Throws as openFile does.
std::string readFile(const std::string& path, std::size_t limit, Links links);

/// The SHA-256 of a certificate in DER.
using Digest = std::array<unsigned char, 32>;

/// Throws std::bad_alloc.
Digest digestOf(const std::string& der);

/// The bytes of a text that hold a block, and maybe text before it.
struct Place {
    std::uint32_t begin = 0;
    std::uint32_t length = 0;
};

/// How many blocks of a text are not certificates.
struct OtherBlocks {
    std::size_t damaged = 0;  // certificate blocks that are not X.509
    std::size_t others = 0;   // blocks of another kind: keys, trusted certificates (with OpenSSL's trust settings)
};

/// Whether each certificate is parsed to find damaged ones. That takes 0.1 ms each: too long for the 150 certificates
/// of the system's bundle, which is generated and not edited by hand.
enum class Parse { yes, no };

/// Calls `visit` with each certificate of a PEM text, in DER. Text between the blocks is ignored.
OtherBlocks visitCertificates(const std::string& text, Parse parsed,
                              const std::function<void(std::string der, Place place)>& visit);

struct Certificates : OtherBlocks {
    std::vector<std::string> der;
};

/// The certificates of a PEM text.
Certificates certificatesFromPem(const std::string& text, Parse parsed);

/// Whether `der` is exactly one X.509 certificate and its dates include now.
bool isValidToday(const std::string& der);

}  // namespace zav
