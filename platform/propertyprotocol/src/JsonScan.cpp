#include "propertyprotocol/Json.h"

#include <charconv>
#include <cstring>

#include "propertyprotocol/Utf8.h"

namespace propertyprotocol {

namespace {

bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

// Structure, white space, and letters: the library itself checks true, false and null.
bool isPlain(char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter != '\0' && std::strchr("{}[],: \t\n\r", letter) != nullptr);
}

class Scanner {
 public:
    explicit Scanner(const std::string& json) : json_(json) {}

    std::optional<std::size_t> countTokens() {
        std::size_t tokens = 0;
        while (at_ < json_.size()) {
            const char letter = json_[at_];
            if (letter == '"') {
                if (!passString()) return std::nullopt;
            } else if (letter == '-' || isDigit(letter)) {
                if (!passNumber()) return std::nullopt;
            } else {
                if (!isPlain(letter)) return std::nullopt;
                if (letter == ',' || letter == '[' || letter == '{') ++tokens;
                ++at_;
            }
        }
        return tokens;
    }

 private:
    char peek(std::size_t ahead = 0) const { return at_ + ahead < json_.size() ? json_[at_ + ahead] : '\0'; }

    bool pass(char letter) {
        if (peek() != letter) return false;
        ++at_;
        return true;
    }

    bool passDigits() {
        const std::size_t begin = at_;
        while (isDigit(peek())) ++at_;
        return at_ > begin;
    }

    bool passNumber() {
        pass('-');
        if (!pass('0') && !passDigits()) return false;
        if (pass('.') && !passDigits()) return false;
        if (pass('e') || pass('E')) {
            if (!pass('+')) pass('-');
            if (!passDigits()) return false;
        }
        return !isDigit(peek());  // a digit after a leading zero
    }

    bool passString() {
        for (++at_; at_ < json_.size();) {
            const auto byte = static_cast<unsigned char>(json_[at_]);
            if (byte == '"') {
                ++at_;
                return true;
            }
            if (byte == '\\') {
                if (!passEscape()) return false;
            } else if (byte < 0x80) {
                if (byte < 0x20) return false;
                ++at_;
            } else {
                const std::size_t length = utf8SequenceLength(json_, at_);
                if (length == 0) return false;
                at_ += length;
            }
        }
        return false;
    }

    bool passEscape() {
        if (peek(1) != 'u') {  // the library checks the others
            at_ += 2;
            return true;
        }
        const unsigned first = passCodeUnit();
        if (first >= 0xd800 && first <= 0xdbff) {
            const unsigned second = passCodeUnit();
            return second >= 0xdc00 && second <= 0xdfff;
        }
        return first < 0xdc00 || (first > 0xdfff && first <= 0xffff);
    }

    // The code unit of the escape "\uXXXX", or notAUnit.
    unsigned passCodeUnit() {
        constexpr std::size_t length = 6;
        unsigned unit = 0;
        if (peek() != '\\' || peek(1) != 'u' || json_.size() - at_ < length) return notAUnit;
        const char* const end = json_.data() + at_ + length;
        if (std::from_chars(end - 4, end, unit, 16).ptr != end) return notAUnit;
        at_ += length;
        return unit;
    }

    static constexpr unsigned notAUnit = 0x10000;

    const std::string& json_;
    std::size_t at_ = 0;
};

}  // namespace

std::optional<std::size_t> countJsonTokens(const std::string& json) { return Scanner(json).countTokens(); }

}  // namespace propertyprotocol
