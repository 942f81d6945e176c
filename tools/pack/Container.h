// The container that the phone decrypts: "Salted__", eight bytes of salt, AES-128-CBC; key and IV come from the pass
// phrase and the salt in one round of SHA-256, as `openssl enc -aes-128-cbc -pass` derives them by default. All
// functions may be called from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pack {

/// Whether the bytes begin as an encrypted file does.
bool isEncrypted(const std::string& bytes);

/// Encrypts with a salt of its own each time. Throws Error if OpenSSL fails.
std::string encrypt(const std::string& plain, const std::string& passPhrase);

/// The plain bytes, or nothing if these are not an encrypted file or the pass phrase is another one. One of 256 wrong
/// pass phrases goes unnoticed: whoever knows what the plain bytes look like must check them.
std::optional<std::string> decrypt(const std::string& encrypted, const std::string& passPhrase);

/// How large a file becomes.
std::uint64_t encryptedSize(std::uint64_t plainSize);

}  // namespace pack
