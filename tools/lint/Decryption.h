// Encrypted files: decrypts them with the phone's key as the daemon does, and finds out how others were encrypted.
#pragma once

#include <string>

namespace lint {

struct Decrypted {
    enum class Outcome {
        plain,        // not encrypted
        decrypted,    // `text` is what the phone reads
        noKey,        // encrypted, and no key file was given; `detail` may say why it cannot be read
        base64,       // encrypted, but written as base64 text
        otherCipher,  // encrypted with the phone's key in another way; `detail` names openssl's options
        wrongKey,     // none of these
    };
    Outcome outcome = Outcome::plain;
    std::string text;
    std::string detail;
};

/// Starts openssl up to a few times, with up to 10 s for each; nothing for a plain file. Decrypted text is only in
/// memory. Throws LintException for a key file of more than 64 KiB. Any thread.
Decrypted decrypt(const std::string& bytes, const std::string& keyFile);

}  // namespace lint
