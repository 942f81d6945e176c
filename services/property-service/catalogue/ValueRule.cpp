#include "catalogue/ValueRule.h"

#include <json/value.h>
#include <regex.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "service/Limits.h"

namespace propertyservice {

namespace {

std::optional<std::int64_t> wholeNumber(const std::string& text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::int64_t wholeMember(const Json::Value& definition, const char* name, std::int64_t otherwise) {
    if (!definition.isMember(name)) return otherwise;
    if (!definition[name].isInt64())
        throw std::invalid_argument("\"" + std::string(name) + "\" must be a whole number");
    return definition[name].asInt64();
}

std::size_t maxLength(const Json::Value& definition) {
    const auto most = static_cast<std::int64_t>(maxValueBytes);
    const std::int64_t length = wholeMember(definition, "maxLength", most);
    if (length < 0 || length > most) {
        throw std::invalid_argument("\"maxLength\" must be from 0 to " + std::to_string(maxValueBytes));
    }
    return static_cast<std::size_t>(length);
}

class TextRule final : public ValueRule {
 public:
    explicit TextRule(const Json::Value& definition) : maxLength_(maxLength(definition)) {}

    std::string objection(const std::string& value) const override {
        if (value.size() <= maxLength_) return {};
        return "must be at most " + std::to_string(maxLength_) + " bytes long, not " + std::to_string(value.size());
    }

 private:
    const std::size_t maxLength_;
};

class IntegerRule final : public ValueRule {
 public:
    explicit IntegerRule(const Json::Value& definition)
        : min_(wholeMember(definition, "min", std::numeric_limits<std::int64_t>::min())),
          max_(wholeMember(definition, "max", std::numeric_limits<std::int64_t>::max())) {
        if (min_ > max_) throw std::invalid_argument("\"min\" is greater than \"max\"");
    }

    std::string objection(const std::string& value) const override {
        const std::optional<std::int64_t> number = wholeNumber(value);
        if (number && *number >= min_ && *number <= max_) return {};
        return "must be a whole number" + range();
    }

 private:
    std::string range() const {
        const bool lower = min_ != std::numeric_limits<std::int64_t>::min();
        const bool upper = max_ != std::numeric_limits<std::int64_t>::max();
        if (lower && upper) return " from " + std::to_string(min_) + " to " + std::to_string(max_);
        if (lower) return " of at least " + std::to_string(min_);
        if (upper) return " of at most " + std::to_string(max_);
        return {};
    }

    const std::int64_t min_;
    const std::int64_t max_;
};

class BooleanRule final : public ValueRule {
 public:
    std::string objection(const std::string& value) const override {
        if (value == "0" || value == "1" || value == "false" || value == "true") return {};
        return "must be 0 or 1 (or false or true)";
    }
};

class EnumRule final : public ValueRule {
 public:
    explicit EnumRule(const Json::Value& definition) {
        const Json::Value& values = definition["values"];
        if (!values.isArray() || values.empty()) {
            throw std::invalid_argument("an enum needs \"values\", a list of at least one text");
        }
        for (const Json::Value& value : values) {
            if (!value.isString()) throw std::invalid_argument("every one of \"values\" must be a text");
            if (std::find(values_.begin(), values_.end(), value.asString()) != values_.end()) {
                throw std::invalid_argument("\"values\" has \"" + value.asString() + "\" twice");
            }
            values_.push_back(value.asString());
        }
    }

    std::string objection(const std::string& value) const override {
        if (std::find(values_.begin(), values_.end(), value) != values_.end()) return {};
        std::string text = "must be one of";
        const char* separator = " ";
        for (const std::string& allowed : values_) {
            text += separator + ("\"" + allowed + "\"");
            separator = ", ";
        }
        return text;
    }

 private:
    std::vector<std::string> values_;
};

class PatternRule final : public ValueRule {
 public:
    explicit PatternRule(const Json::Value& definition) : maxLength_(maxLength(definition)) {
        const Json::Value& pattern = definition["pattern"];
        if (!pattern.isString() || pattern.asString().empty()) {
            throw std::invalid_argument("a pattern needs \"pattern\", a POSIX extended regular expression");
        }
        text_ = pattern.asString();
        // The whole value has to match, whatever alternatives the expression has.
        const int error = ::regcomp(&expression_, ("^(" + text_ + ")$").c_str(), REG_EXTENDED | REG_NOSUB);
        if (error != 0) {
            char reason[200] = "";
            ::regerror(error, &expression_, reason, sizeof reason);
            throw std::invalid_argument("\"pattern\" is no POSIX extended regular expression: " + std::string(reason));
        }
    }
    PatternRule(const PatternRule&) = delete;
    PatternRule& operator=(const PatternRule&) = delete;
    ~PatternRule() override { ::regfree(&expression_); }

    std::string objection(const std::string& value) const override {
        if (value.size() > maxLength_) return "must be at most " + std::to_string(maxLength_) + " bytes long";
        if (::regexec(&expression_, value.c_str(), 0, nullptr, 0) == 0) return {};
        return "must match the pattern " + text_;
    }

 private:
    const std::size_t maxLength_;
    std::string text_;
    regex_t expression_{};
};

struct Type {
    const char* name;
    std::set<std::string> limits;  // the members that go with it
    std::shared_ptr<const ValueRule> (*make)(const Json::Value&);
};

template <typename Rule>
std::shared_ptr<const ValueRule> make(const Json::Value& definition) {
    return std::make_shared<const Rule>(definition);
}

const std::vector<Type>& types() {
    static const std::vector<Type> all{
        {"text", {"maxLength"}, make<TextRule>},
        {"integer", {"min", "max"}, make<IntegerRule>},
        {"boolean",
         {},
         [](const Json::Value&) -> std::shared_ptr<const ValueRule> { return std::make_shared<const BooleanRule>(); }},
        {"enum", {"values"}, make<EnumRule>},
        {"pattern", {"pattern", "maxLength"}, make<PatternRule>},
    };
    return all;
}

}  // namespace

std::shared_ptr<const ValueRule> makeValueRule(const Json::Value& definition) {
    static const std::set<std::string> common{"type", "default", "description", "readOnly"};
    if (!definition["type"].isString()) throw std::invalid_argument("\"type\" is missing");
    const std::string name = definition["type"].asString();
    const auto type =
        std::find_if(types().begin(), types().end(), [&](const Type& candidate) { return name == candidate.name; });
    if (type == types().end()) {
        throw std::invalid_argument("unknown type \"" + name + "\" (text, integer, boolean, enum or pattern)");
    }
    for (const std::string& member : definition.getMemberNames()) {
        if (common.count(member) == 0 && type->limits.count(member) == 0) {
            throw std::invalid_argument("type \"" + name + "\" has no member \"" + member + "\"");
        }
    }
    return type->make(definition);
}

}  // namespace propertyservice
