#include "pack/Container.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>
#include <limits>
#include <memory>

#include "pack/Error.h"

namespace pack {

namespace {

constexpr char magic[] = "Salted__";
constexpr std::size_t magicSize = sizeof magic - 1;
constexpr std::size_t saltSize = 8;
constexpr std::size_t headerSize = magicSize + saltSize;
constexpr std::size_t blockSize = 16;
constexpr std::size_t keySize = 16;

using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;
using Salt = std::array<unsigned char, saltSize>;

[[noreturn]] void fail(const char* what) {
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    throw Error(std::string("OpenSSL cannot ") + what + (reason != nullptr ? std::string(": ") + reason : ""));
}

const unsigned char* toUnsigned(const char* bytes) { return reinterpret_cast<const unsigned char*>(bytes); }
unsigned char* toUnsigned(char* bytes) { return reinterpret_cast<unsigned char*>(bytes); }

// A look-up of an algorithm takes longer than the encryption of a usual file, so it happens once.
const EVP_CIPHER* cipher() {
    static const std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> fetched(
        EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr), EVP_CIPHER_free);
    if (!fetched) fail("provide AES-128-CBC");
    return fetched.get();
}

const EVP_MD* digest() {
    static const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> fetched(EVP_MD_fetch(nullptr, "SHA256", nullptr),
                                                                         EVP_MD_free);
    if (!fetched) fail("provide SHA-256");
    return fetched.get();
}

Context prepared(const std::string& passPhrase, const Salt& salt, bool encrypting) {
    std::array<unsigned char, keySize> key{};
    std::array<unsigned char, blockSize> iv{};
    if (EVP_BytesToKey(cipher(), digest(), salt.data(), toUnsigned(passPhrase.data()),
                       static_cast<int>(passPhrase.size()), 1, key.data(), iv.data()) != static_cast<int>(keySize)) {
        fail("derive the key");
    }
    Context context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    if (!context ||
        EVP_CipherInit_ex2(context.get(), cipher(), key.data(), iv.data(), encrypting ? 1 : 0, nullptr) != 1) {
        fail("prepare the cipher");
    }
    return context;
}

}  // namespace

bool isEncrypted(const std::string& bytes) { return bytes.compare(0, magicSize, magic) == 0; }

std::string encrypt(const std::string& plain, const std::string& passPhrase) {
    if (plain.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) - blockSize) {
        throw Error("too large to be encrypted");
    }
    Salt salt{};
    if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) fail("provide random bytes");
    const Context context = prepared(passPhrase, salt, true);
    std::string out(static_cast<std::size_t>(encryptedSize(plain.size())), '\0');
    out.replace(0, magicSize, magic);
    out.replace(magicSize, saltSize, reinterpret_cast<const char*>(salt.data()), saltSize);
    int body = 0;
    int tail = 0;
    if (EVP_CipherUpdate(context.get(), toUnsigned(out.data() + headerSize), &body, toUnsigned(plain.data()),
                         static_cast<int>(plain.size())) != 1 ||
        EVP_CipherFinal_ex(context.get(), toUnsigned(out.data() + headerSize + body), &tail) != 1) {
        fail("encrypt");
    }
    return out;
}

std::optional<std::string> decrypt(const std::string& encrypted, const std::string& passPhrase) {
    const std::size_t size = encrypted.size();
    if (!isEncrypted(encrypted) || size < headerSize + blockSize || (size - headerSize) % blockSize != 0 ||
        size > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        return std::nullopt;
    }
    Salt salt{};
    encrypted.copy(reinterpret_cast<char*>(salt.data()), saltSize, magicSize);
    const Context context = prepared(passPhrase, salt, false);
    std::string out(size - headerSize, '\0');
    int body = 0;
    int tail = 0;
    if (EVP_CipherUpdate(context.get(), toUnsigned(out.data()), &body, toUnsigned(encrypted.data() + headerSize),
                         static_cast<int>(out.size())) != 1 ||
        EVP_CipherFinal_ex(context.get(), toUnsigned(out.data() + body), &tail) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    out.resize(static_cast<std::size_t>(body) + static_cast<std::size_t>(tail));
    return out;
}

std::uint64_t encryptedSize(std::uint64_t plainSize) { return headerSize + (plainSize / blockSize + 1) * blockSize; }

}  // namespace pack
