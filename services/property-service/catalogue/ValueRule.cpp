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

#include "common/UrlSyntax.h"
#include "propertyprotocol/Limits.h"

namespace propertyservice {

namespace {

std::optional<std::int64_t> wholeNumber(const std::string& text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::int64_t wholeMember(const Json::Value& definition, const char* name, std::int64_t defaultValue) {
    if (!definition.isMember(name)) return defaultValue;
    if (!definition[name].isInt64())
        throw std::invalid_argument("\"" + std::string(name) + "\" must be a whole number");
    return definition[name].asInt64();
}

std::size_t maxLength(const Json::Value& definition) {
    const auto limit = static_cast<std::int64_t>(propertyprotocol::maxValueBytes);
    const std::int64_t length = wholeMember(definition, "maxLength", limit);
    if (length < 0 || length > limit) {
        throw std::invalid_argument("\"maxLength\" must be from 0 to " +
                                    std::to_string(propertyprotocol::maxValueBytes));
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
            throw std::invalid_argument("an enum needs \"values\", a non-empty array of strings");
        }
        for (const Json::Value& value : values) {
            if (!value.isString()) throw std::invalid_argument("each of \"values\" must be a string");
            if (std::find(values_.begin(), values_.end(), value.asString()) != values_.end()) {
                throw std::invalid_argument("duplicate \"" + value.asString() + "\" in \"values\"");
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
        const int error = ::regcomp(&expression_, text_.c_str(), REG_EXTENDED);
        if (error != 0) {
            char reason[200] = "";
            ::regerror(error, &expression_, reason, sizeof reason);
            throw std::invalid_argument("\"pattern\" is not a POSIX extended regular expression: " +
                                        std::string(reason));
        }
    }
    PatternRule(const PatternRule&) = delete;
    PatternRule& operator=(const PatternRule&) = delete;
    ~PatternRule() override { ::regfree(&expression_); }

    std::string objection(const std::string& value) const override {
        if (value.size() > maxLength_) return "must be at most " + std::to_string(maxLength_) + " bytes long";
        // POSIX finds the leftmost longest match, so a value that matches as a whole is found whatever the order of the
        // alternatives.
        regmatch_t match{};
        const bool found = ::regexec(&expression_, value.c_str(), 1, &match, 0) == 0;
        if (found && match.rm_so == 0 && static_cast<std::size_t>(match.rm_eo) == value.size()) return {};
        return "must match the pattern " + text_;
    }

 private:
    const std::size_t maxLength_;
    std::string text_;
    regex_t expression_{};
};

// The objections of these rules do not contain the value: the service logs them.
class SecretRule final : public ValueRule {
 public:
    explicit SecretRule(const Json::Value& definition) {
        if (definition.isMember("pattern")) {
            rule_ = std::make_unique<const PatternRule>(definition);
        } else {
            rule_ = std::make_unique<const TextRule>(definition);
        }
    }

    std::string objection(const std::string& value) const override { return rule_->objection(value); }

 private:
    std::unique_ptr<const ValueRule> rule_;
};

class UrlRule final : public ValueRule {
 public:
    explicit UrlRule(const Json::Value& definition) : maxLength_(std::min(maxLength(definition), maxUrlLength)) {
        if (definition.isMember("schemes")) readSchemes(definition["schemes"]);
    }

    std::string objection(const std::string& value) const override {
        if (value.empty()) return {};
        if (value.size() > maxLength_) return "must be at most " + std::to_string(maxLength_) + " bytes long";
        const std::optional<common::UrlSyntax> url = common::parseUrl(value);
        if (!url || url->scheme.empty()) return "must be a URL such as https://server.example/path, or empty";
        const std::string scheme = lowerCase(url->scheme);
        if (schemes_.empty() || std::find(schemes_.begin(), schemes_.end(), scheme) != schemes_.end()) return {};
        std::string text = "must begin with";
        for (const std::string& allowed : schemes_) text += (&allowed == &schemes_[0] ? " " : " or ") + allowed + "://";
        return text;
    }

 private:
    static constexpr std::size_t maxUrlLength = 2048;

    static std::string lowerCase(std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), [](char letter) {
            return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
        });
        return text;
    }

    void readSchemes(const Json::Value& schemes) {
        if (!schemes.isArray() || schemes.empty()) {
            throw std::invalid_argument("\"schemes\" must be an array such as [\"https\"]");
        }
        for (const Json::Value& scheme : schemes) {
            if (!scheme.isString() || scheme.asString().empty() || scheme.asString() != lowerCase(scheme.asString())) {
                throw std::invalid_argument("each of \"schemes\" must be a string in lower case");
            }
            schemes_.push_back(scheme.asString());
        }
    }

    const std::size_t maxLength_;
    std::vector<std::string> schemes_;
};

class MacRule final : public ValueRule {
 public:
    std::string objection(const std::string& value) const override {
        if (value.empty()) return {};
        // Six pairs of digits, with the same separator everywhere or none.
        const std::string separator = value.size() == 17 ? value.substr(2, 1) : "";
        bool isValid = value.size() == 12 || separator == ":" || separator == "-";
        for (std::size_t at = 0; isValid && at < value.size(); ++at) {
            const bool isSeparator = !separator.empty() && at % 3 == 2;
            isValid = isSeparator ? value[at] == separator[0] : isHexadecimal(value[at]);
        }
        return isValid ? "" : "must be a MAC address such as 00:11:22:aa:bb:cc, or empty";
    }

 private:
    static bool isHexadecimal(char letter) {
        return (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'f') || (letter >= 'A' && letter <= 'F');
    }
};

struct Type {
    const char* name;
    std::vector<std::string> limits;  // the members that this type allows
    std::shared_ptr<const ValueRule> (*make)(const Json::Value&);
};

template <typename Rule>
std::shared_ptr<const ValueRule> make(const Json::Value& definition) {
    return std::make_shared<const Rule>(definition);
}

template <typename Rule>
std::shared_ptr<const ValueRule> makePlain(const Json::Value&) {
    return std::make_shared<const Rule>();
}

const std::vector<Type>& types() {
    static const std::vector<Type> all{
        {"text", {"maxLength"}, make<TextRule>},
        {"integer", {"min", "max"}, make<IntegerRule>},
        {"boolean", {}, makePlain<BooleanRule>},
        {"enum", {"values"}, make<EnumRule>},
        {"pattern", {"pattern", "maxLength"}, make<PatternRule>},
        {"url", {"schemes", "maxLength"}, make<UrlRule>},
        {"mac", {}, makePlain<MacRule>},
        {"secret", {"pattern", "maxLength"}, make<SecretRule>},
    };
    return all;
}

const Type* findType(const std::string& name) {
    const auto type =
        std::find_if(types().begin(), types().end(), [&](const Type& candidate) { return name == candidate.name; });
    return type == types().end() ? nullptr : &*type;
}

}  // namespace

std::shared_ptr<const ValueRule> makeValueRule(const Json::Value& definition) {
    static const std::set<std::string> common{"type",     "default",  "description",
                                              "readOnly", "volatile", "refusedSources"};
    if (!definition["type"].isString()) throw std::invalid_argument("\"type\" is missing");
    const std::string name = definition["type"].asString();
    const Type* const type = findType(name);
    if (type == nullptr) {
        throw std::invalid_argument("unknown type \"" + name +
                                    "\" (text, integer, boolean, enum, pattern, url, mac or secret)");
    }
    for (const std::string& member : definition.getMemberNames()) {
        if (common.count(member) == 0 &&
            std::find(type->limits.begin(), type->limits.end(), member) == type->limits.end()) {
            throw std::invalid_argument("type \"" + name + "\" has no member \"" + member + "\"");
        }
    }
    return type->make(definition);
}

std::vector<std::string> limitNames(const std::string& type) {
    const Type* const found = findType(type);
    return found == nullptr ? std::vector<std::string>() : found->limits;
}

}  // namespace propertyservice
