#include "catalogue/PatternSize.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace propertyservice {

namespace {

class Measurement {
 public:
    Measurement(std::string_view pattern, std::size_t limit) : pattern_(pattern), limit_(limit) {}

    std::size_t run() {
        while (position_ < pattern_.size()) readNext(pattern_[position_++]);
        while (groups_.size() > 1) closeGroup();
        return groups_.back().total;
    }

 private:
    struct Group {
        std::size_t total = 0;
        std::size_t last = 0;  // what a repetition that follows copies
    };

    void readNext(char next) {
        if (next == '(') {
            groups_.emplace_back();
        } else if (next == ')') {
            if (groups_.size() > 1) closeGroup();
        } else if (next == '+') {
            repeat(2);  // "a+" is compiled as "aa*"
        } else if (next == '{') {
            repeat(readCount());
        } else if (next == '*' || next == '?') {
            repeat(1);
        } else {
            if (next == '\\') ++position_;
            if (next == '[') skipBracket();
            add(1);
        }
    }

    void add(std::size_t size) {
        Group& group = groups_.back();
        group.last = size;
        group.total = std::min(group.total + size, limit_ + 1);
    }

    void closeGroup() {
        const std::size_t size = groups_.back().total + 1;
        groups_.pop_back();
        add(size);
    }

    void repeat(std::size_t times) {
        Group& group = groups_.back();
        const std::size_t before = group.last;
        group.last = std::min(before * std::max<std::size_t>(times, 1) + 1, limit_ + 1);
        group.total = std::min(group.total - std::min(before, group.total) + group.last, limit_ + 1);
    }

    // The greatest number between the braces. Braces that repeat nothing count the same way.
    std::size_t readCount() {
        std::size_t greatest = 0;
        std::size_t number = 0;
        for (; position_ < pattern_.size() && pattern_[position_] != '}'; ++position_) {
            const char digit = pattern_[position_];
            const bool isDigit = digit >= '0' && digit <= '9';
            number = isDigit ? std::min(number * 10 + static_cast<std::size_t>(digit - '0'), limit_ + 1) : 0;
            greatest = std::max(greatest, number);
        }
        if (position_ < pattern_.size()) ++position_;
        return greatest;
    }

    void skipBracket() {
        if (position_ < pattern_.size() && pattern_[position_] == '^') ++position_;
        if (position_ < pattern_.size() && pattern_[position_] == ']') ++position_;  // a member
        while (position_ < pattern_.size() && pattern_[position_] != ']') {
            const std::string_view rest = pattern_.substr(position_);
            const bool isClass =
                rest.size() > 1 && rest[0] == '[' && std::string_view(":.=").find(rest[1]) != rest.npos;
            const std::size_t end = isClass ? rest.find(std::string{rest[1], ']'}, 2) : rest.npos;
            position_ += end == rest.npos ? 1 : end + 2;
        }
        if (position_ < pattern_.size()) ++position_;
    }

    const std::string_view pattern_;
    const std::size_t limit_;
    std::size_t position_ = 0;
    std::vector<Group> groups_{1};
};

}  // namespace

std::size_t sizeOfPattern(const std::string& pattern, std::size_t limit) { return Measurement(pattern, limit).run(); }

}  // namespace propertyservice
