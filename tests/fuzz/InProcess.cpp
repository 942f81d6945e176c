#include "fuzz/InProcess.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <vector>

#include "common/Execute.h"
#include "fuzz/Promise.h"

namespace fuzz {

namespace {

constexpr int saltSize = 8;
constexpr int iterations = 10000;  // openssl's default for -pbkdf2
constexpr char fromFile[] = "file:";
constexpr char magic[] = "Salted__";
constexpr std::size_t magicSize = sizeof magic - 1;
constexpr std::size_t longestPassPhrase = 1023;
constexpr char cleanUp[] = "/config/bin/clean-up-utils.sh";

[[noreturn]] void fail(const std::string& reason) { throw os::ExecuteException("Command failed: " + reason); }

std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) fail(path + " cannot be opened");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The first line; openssl reads it as a string that ends with a zero byte.
std::string passPhrase(const std::string& path) {
    const std::string content = read(path);
    if (content.empty() || content.front() == '\0') fail("there is no pass phrase");
    const std::string line = content.substr(0, std::min(content.find('\n'), longestPassPhrase));
    return line.substr(0, line.find('\0'));
}

const unsigned char* bytes(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

struct Options {
    std::string cipher;
    std::string digest = "sha256";
    bool pbkdf2 = false;
};

struct Key {
    std::array<unsigned char, EVP_MAX_KEY_LENGTH + EVP_MAX_IV_LENGTH> bytes{};
    const unsigned char* iv = nullptr;
};

Key keyOf(const Options& options, const EVP_CIPHER* cipher, const unsigned char* salt, const std::string& phrase) {
    const EVP_MD* const digest = EVP_get_digestbyname(options.digest.c_str());
    promise(digest != nullptr, "digests are known");
    const int keyLength = EVP_CIPHER_key_length(cipher);
    const int length = keyLength + EVP_CIPHER_iv_length(cipher);
    Key key;
    key.iv = key.bytes.data() + keyLength;
    const int size = static_cast<int>(phrase.size());
    if (options.pbkdf2) {
        PKCS5_PBKDF2_HMAC(phrase.data(), size, salt, saltSize, iterations, digest, length, key.bytes.data());
    } else {
        EVP_BytesToKey(cipher, digest, salt, bytes(phrase), size, 1, key.bytes.data(), key.bytes.data() + keyLength);
    }
    return key;
}

std::string decrypted(const Options& options, const std::string& file, const std::string& phrase) {
    if (file.compare(0, magicSize, magic) != 0 || file.size() < magicSize + saltSize) fail("bad magic number");
    const EVP_CIPHER* const cipher = EVP_get_cipherbyname(options.cipher.c_str());
    promise(cipher != nullptr, "ciphers are known");
    const Key key = keyOf(options, cipher, bytes(file) + magicSize, phrase);
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    const std::string rest = file.substr(magicSize + saltSize);
    std::vector<unsigned char> plain(rest.size() + EVP_MAX_BLOCK_LENGTH);
    int length = 0;
    int last = 0;
    const bool worked =
        EVP_DecryptInit_ex(context.get(), cipher, nullptr, key.bytes.data(), key.iv) == 1 &&
        EVP_DecryptUpdate(context.get(), plain.data(), &length, bytes(rest), static_cast<int>(rest.size())) == 1 &&
        EVP_DecryptFinal_ex(context.get(), plain.data() + length, &last) == 1;
    if (!worked) fail("bad decrypt");
    return {plain.begin(), plain.begin() + length + last};
}

}  // namespace

void executeInProcess(const std::string& command) {
    if (command.find(cleanUp) != std::string::npos) return;
    std::istringstream words(command);
    std::string word;
    words >> word;
    promise(word == "openssl" && words >> word && word == "enc", "the only command is openssl enc");
    Options options;
    std::string in;
    std::string out;
    std::string pass;
    while (words >> word) {
        if (word == "-in") {
            words >> in;
        } else if (word == "-out") {
            words >> out;
        } else if (word == "-pass") {
            words >> pass;
        } else if (word == "-md") {
            words >> options.digest;
        } else if (word == "-pbkdf2") {
            options.pbkdf2 = true;
        } else if (word != "-d") {
            options.cipher = word.substr(1);
        }
    }
    promise(pass.rfind(fromFile, 0) == 0, "the pass phrase is in a file");
    const std::string plain = decrypted(options, read(in), passPhrase(pass.substr(sizeof fromFile - 1)));
    std::ofstream(out, std::ios::binary | std::ios::trunc) << plain;
}

}  // namespace fuzz
