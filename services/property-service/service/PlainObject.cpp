#include "service/PlainObject.h"

#include <algorithm>

#include "common/ByteSet.h"

namespace propertyservice {

namespace {

constexpr common::ByteSet isPlain([](unsigned char byte) {
    return byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\';
});

class Cursor {
 public:
    explicit Cursor(std::string_view text) : left_(text) {}

    bool pass(char letter) {
        if (left_.empty() || left_.front() != letter) return false;
        left_.remove_prefix(1);
        return true;
    }

    bool passString(std::string_view& text) {
        if (!pass('"')) return false;
        const auto end = std::find_if_not(left_.begin(), left_.end(), isPlain);
        const auto size = static_cast<std::size_t>(end - left_.begin());
        text = left_.substr(0, size);
        left_.remove_prefix(size);
        return pass('"');
    }

    bool isAtEnd() const { return left_.empty(); }

 private:
    std::string_view left_;
};

}  // namespace

std::optional<PlainObject> PlainObject::read(std::string_view payload) {
    PlainObject object;
    Cursor cursor(payload);
    if (!cursor.pass('{')) return std::nullopt;
    do {
        Member member;
        if (!cursor.passString(member.name) || !cursor.pass(':') || !cursor.passString(member.value))
            return std::nullopt;
        if (object.count_ == object.members_.size() || object.member(member.name)) return std::nullopt;
        object.members_.at(object.count_++) = member;
    } while (cursor.pass(','));
    if (!cursor.pass('}') || !cursor.isAtEnd()) return std::nullopt;
    return object;
}

std::optional<std::string_view> PlainObject::member(std::string_view name) const {
    for (std::size_t index = 0; index < count_; ++index) {
        if (members_.at(index).name == name) return members_.at(index).value;
    }
    return std::nullopt;
}

}  // namespace propertyservice
