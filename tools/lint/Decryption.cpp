#include "lint/Decryption.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <optional>

#include "common/Execute.h"
#include "lint/Lint.h"
#include "lint/MemoryFile.h"

namespace lint {

namespace {

constexpr char salted[] = "Salted__";
constexpr char saltedAsBase64[] = "U2FsdGVkX1";
constexpr char phonesOptions[] = "-aes-128-cbc";
constexpr std::size_t maximumKeySize = 65536;        // openssl reads one line
constexpr std::chrono::milliseconds timeout{10000};  // as the daemon's

bool beginsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

bool looksLikeXml(const std::string& text) {
    const std::size_t begin = beginsWith(text, "\xEF\xBB\xBF") ? 3 : 0;
    const std::size_t first = text.find_first_not_of(" \t\r\n", begin);
    const bool isUtf16 = beginsWith(text, "\xFF\xFE") || beginsWith(text, "\xFE\xFF");
    return isUtf16 || (first != std::string::npos && text[first] == '<');
}

// Nothing if openssl refuses.
std::optional<std::string> decryptWith(const char* options, const common::Descriptor& encrypted,
                                       const common::Descriptor& key) {
    const common::Descriptor output = memoryFile("");
    try {
        os::execute("openssl enc " + std::string(options) + " -d -in " + pathOf(encrypted) + " -out " + pathOf(output) +
                        " -pass file:" + pathOf(key),
                    timeout);
        return contentOf(output);
    } catch (const os::ExecuteException&) {
        return std::nullopt;
    }
}

}  // namespace

Decrypted decrypt(const std::string& bytes, const std::string& keyFile) {
    using Outcome = Decrypted::Outcome;
    if (beginsWith(bytes, saltedAsBase64)) return {Outcome::base64, "", ""};
    if (!beginsWith(bytes, salted)) return {Outcome::plain, bytes, ""};
    if (keyFile.empty()) return {Outcome::noKey, "", ""};
    std::ifstream stream(keyFile, std::ios::binary);
    if (!stream) return {Outcome::noKey, "", "cannot read " + keyFile + ": " + common::reasonOf(errno)};
    std::string keyBytes(maximumKeySize + 1, '\0');
    stream.read(keyBytes.data(), static_cast<std::streamsize>(keyBytes.size()));
    keyBytes.resize(static_cast<std::size_t>(stream.gcount()));
    if (keyBytes.size() > maximumKeySize) throw LintException(keyFile + ": is larger than 64 KiB, so it is not a key");
    const common::Descriptor key = memoryFile(keyBytes);
    const common::Descriptor encrypted = memoryFile(bytes);
    // One key in 256 decrypts to garbage that openssl takes for text.
    auto text = decryptWith(phonesOptions, encrypted, key);
    if (text && looksLikeXml(*text)) return {Outcome::decrypted, std::move(*text), ""};
    constexpr std::array<const char*, 8> others{"-aes-128-cbc -pbkdf2",  "-aes-128-cbc -md md5",   "-aes-256-cbc",
                                                "-aes-256-cbc -pbkdf2",  "-aes-256-cbc -md md5",   "-aes-192-cbc",
                                                "-aes-128-cbc -md sha1", "-aes-128-cbc -md sha512"};
    for (const char* options : others) {
        const auto other = decryptWith(options, encrypted, key);
        if (other && looksLikeXml(*other)) return {Outcome::otherCipher, "", options};
    }
    return {Outcome::wrongKey, "", ""};
}

}  // namespace lint
