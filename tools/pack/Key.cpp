#include "pack/Key.h"

#include <string_view>

#include "pack/Error.h"
#include "pack/Files.h"

namespace pack {

namespace {

// openssl reads this many bytes of the first line and silently drops the rest.
constexpr std::size_t maxPassPhraseBytes = 1023;
constexpr std::size_t maxKeyFileBytes = 64UL * 1024;

void checkPassPhrase(const std::string& path, const std::string& passPhrase) {
    if (passPhrase.empty() || passPhrase == "\r") {
        throw Error(path, "the first line is empty; it must be the pass phrase");
    }
    if (passPhrase.find('\0') != std::string::npos) {
        throw Error(path, "the first line has a NUL byte; a key is one line of text (openssl rand -hex 32)");
    }
    if (passPhrase.size() > maxPassPhraseBytes) {
        throw Error(path, "the first line has more than 1023 bytes; the phone would use the first 1023 only");
    }
}

bool isBlank(char c) { return c == '\n' || c == '\r' || c == ' ' || c == '\t'; }

std::string_view withoutBlanksAtEnd(std::string_view text) {
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

}  // namespace

Key readKey(const std::string& path) {
    const std::string content = readFile(path, maxKeyFileBytes);
    if (content.empty()) throw Error(path, "the key file is empty");
    const std::size_t end = content.find('\n');
    Key key;
    key.passPhrase = content.substr(0, end);
    checkPassPhrase(path, key.passPhrase);
    const char last = key.passPhrase.back();
    if (last == '\r') {
        key.warnings.push_back(path +
                               ": the first line ends with a carriage return, which is part of the pass phrase; " +
                               "the phone's key file must end in the same way");
    } else if (last == ' ' || last == '\t') {
        key.warnings.push_back(path + ": the first line ends with a blank, which is part of the pass phrase");
    }
    if (key.passPhrase.compare(0, 3, "\xef\xbb\xbf") == 0) {
        key.warnings.push_back(path + ": begins with a byte order mark, which is part of the pass phrase");
    }
    if (end != std::string::npos && end + 1 < content.size()) {
        key.warnings.push_back(path + ": only the first line is used");
    }
    key.content = content;
    return key;
}

bool isKey(const std::string& bytes, const Key& key) {
    // A long file would be searched for its end in vain.
    if (bytes.size() > maxKeyFileBytes) return false;
    const std::string_view text = withoutBlanksAtEnd(bytes);
    return text == withoutBlanksAtEnd(key.passPhrase) || text == withoutBlanksAtEnd(key.content);
}

}  // namespace pack
