#include "catalogue/ValueRule.h"

#include <json/value.h>
#include <regex.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

#include "catalogue/PatternSize.h"
#include "common/UrlSyntax.h"
#include "propertyprotocol/Limits.h"

namespace propertyservice {

namespace {

constexpr std::size_t maxPatternSize = 500;

bool isHexadecimal(char letter) {
    return (letter >= '0' && letter <= '9') || (letter >= 'a' && letter <= 'f') || (letter >= 'A' && letter <= 'F');
}

std::optional<std::int64_t> wholeNumber(const std::string& text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::int64_t wholeMember(const Json::Value& definition, const char* name, std::int64_t defaultValue) {
    if (!definition.isMember(name)) return defaultValue;
    require(definition[name].isInt64(), "\"" + std::string(name) + "\" must be a whole number");
    return definition[name].asInt64();
}

std::size_t maxLength(const Json::Value& definition) {
    const auto limit = static_cast<std::int64_t>(propertyprotocol::maxValueBytes);
    const std::int64_t length = wholeMember(definition, "maxLength", limit);
    require(length >= 0 && length <= limit, "\"maxLength\" must be from 0 to " + std::to_string(limit));
    return static_cast<std::size_t>(length);
}

bool contains(const std::vector<std::string>& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string tooLong(std::size_t limit) { return "must be at most " + std::to_string(limit) + " bytes long"; }

ValueRule textRule(const Json::Value& definition) {
    return [limit = maxLength(definition)](const std::string& value) {
        return value.size() <= limit ? "" : tooLong(limit) + ", not " + std::to_string(value.size());
    };
}

ValueRule integerRule(const Json::Value& definition) {
    using Limits = std::numeric_limits<std::int64_t>;
    const std::int64_t min = wholeMember(definition, "min", Limits::min());
    const std::int64_t max = wholeMember(definition, "max", Limits::max());
    require(min <= max, "\"min\" is greater than \"max\"");
    std::string objection = "must be a whole number";
    if (min != Limits::min() && max != Limits::max()) {
        objection += " from " + std::to_string(min) + " to " + std::to_string(max);
    } else if (min != Limits::min()) {
        objection += " of at least " + std::to_string(min);
    } else if (max != Limits::max()) {
        objection += " of at most " + std::to_string(max);
    }
    return [min, max, objection](const std::string& value) {
        const std::optional<std::int64_t> number = wholeNumber(value);
        return number && *number >= min && *number <= max ? "" : objection;
    };
}

ValueRule booleanRule(const Json::Value&) {
    return [](const std::string& value) {
        const bool isAllowed = value == "0" || value == "1" || value == "false" || value == "true";
        return isAllowed ? "" : "must be 0 or 1 (or false or true)";
    };
}

ValueRule enumRule(const Json::Value& definition) {
    require(definition["values"].isArray() && !definition["values"].empty(),
            "an enum needs \"values\", a non-empty array of strings");
    std::vector<std::string> values;
    std::string objection;
    for (const Json::Value& value : definition["values"]) {
        require(value.isString(), "each of \"values\" must be a string");
        const std::string quoted = "\"" + value.asString() + "\"";
        require(!contains(values, value.asString()), "duplicate " + quoted + " in \"values\"");
        values.push_back(value.asString());
        objection += (objection.empty() ? "must be one of " : ", ") + quoted;
    }
    return [values, objection](const std::string& value) { return contains(values, value) ? "" : objection; };
}

ValueRule patternRule(const Json::Value& definition) {
    require(definition["pattern"].isString() && !definition["pattern"].asString().empty(),
            "a pattern needs \"pattern\", a POSIX extended regular expression");
    const std::string pattern = definition["pattern"].asString();
    require(sizeOfPattern(pattern, maxPatternSize) <= maxPatternSize,
            "\"pattern\" has more than 500 characters once its repetitions are written out");
    auto compiled = std::make_unique<regex_t>();
    if (const int error = ::regcomp(compiled.get(), pattern.c_str(), REG_EXTENDED)) {
        char reason[200] = "";
        ::regerror(error, compiled.get(), reason, sizeof reason);
        throw std::invalid_argument("\"pattern\" is not a POSIX extended regular expression: " + std::string(reason));
    }
    const std::shared_ptr<const regex_t> expression(compiled.release(), [](regex_t* owned) {
        ::regfree(owned);
        delete owned;
    });
    return [expression, pattern, limit = maxLength(definition)](const std::string& value) {
        if (value.size() > limit) return tooLong(limit);
        // POSIX finds the leftmost longest match, so a value that matches as a whole is found whatever the order of the
        // alternatives.
        regmatch_t match{};
        const bool isFound = ::regexec(expression.get(), value.c_str(), 1, &match, 0) == 0;
        const bool isWhole = match.rm_so == 0 && static_cast<std::size_t>(match.rm_eo) == value.size();
        return isFound && isWhole ? "" : "must match the pattern " + pattern;
    };
}

// The objections of these rules do not contain the value: the service logs them.
ValueRule secretRule(const Json::Value& definition) {
    return definition.isMember("pattern") ? patternRule(definition) : textRule(definition);
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
    });
    return text;
}

ValueRule urlRule(const Json::Value& definition) {
    constexpr std::size_t maxUrlLength = 2048;
    const Json::Value& allowed = definition["schemes"];
    require(!definition.isMember("schemes") || (allowed.isArray() && !allowed.empty()),
            "\"schemes\" must be an array such as [\"https\"]");
    std::vector<std::string> schemes;
    std::string objection;
    for (const Json::Value& scheme : allowed) {
        require(scheme.isString() && !scheme.asString().empty() && scheme.asString() == lowerCase(scheme.asString()),
                "each of \"schemes\" must be a string in lower case");
        schemes.push_back(scheme.asString());
        objection += (objection.empty() ? "must begin with " : " or ") + scheme.asString() + "://";
    }
    return [schemes, objection, limit = std::min(maxLength(definition), maxUrlLength)](const std::string& value) {
        if (value.empty()) return std::string();
        if (value.size() > limit) return tooLong(limit);
        const std::optional<common::UrlSyntax> url = common::parseUrl(value);
        if (!url || url->scheme.empty())
            return std::string("must be a URL such as https://server.example/path, or empty");
        return schemes.empty() || contains(schemes, lowerCase(url->scheme)) ? "" : objection;
    };
}

ValueRule macRule(const Json::Value&) {
    return [](const std::string& value) {
        if (value.empty()) return "";
        // Six pairs of digits, with the same separator everywhere or none.
        const std::string separator = value.size() == 17 ? value.substr(2, 1) : "";
        bool isValid = value.size() == 12 || separator == ":" || separator == "-";
        for (std::size_t at = 0; isValid && at < value.size(); ++at) {
            const bool isSeparator = !separator.empty() && at % 3 == 2;
            isValid = isSeparator ? value[at] == separator[0] : isHexadecimal(value[at]);
        }
        return isValid ? "" : "must be a MAC address such as 00:11:22:aa:bb:cc, or empty";
    };
}

struct Type {
    const char* name;
    std::vector<std::string> limits;  // the members that this type allows
    ValueRule (*make)(const Json::Value&);
};

const Type* findType(const std::string& name) {
    static const std::vector<Type> types{
        {"text", {"maxLength"}, textRule},
        {"integer", {"min", "max"}, integerRule},
        {"boolean", {}, booleanRule},
        {"enum", {"values"}, enumRule},
        {"pattern", {"pattern", "maxLength"}, patternRule},
        {"url", {"schemes", "maxLength"}, urlRule},
        {"mac", {}, macRule},
        {"secret", {"pattern", "maxLength"}, secretRule},
    };
    const auto type = std::find_if(types.begin(), types.end(), [&](const Type& known) { return name == known.name; });
    return type == types.end() ? nullptr : &*type;
}

}  // namespace

void require(bool isValid, std::string_view reason) {
    if (!isValid) throw std::invalid_argument(std::string(reason));
}

ValueRule makeValueRule(const Json::Value& definition) {
    static const std::vector<std::string> common{"type",     "default",  "description",
                                                 "readOnly", "volatile", "refusedSources"};
    require(definition["type"].isString(), "\"type\" is missing");
    const std::string name = definition["type"].asString();
    const Type* const type = findType(name);
    require(type != nullptr,
            "unknown type \"" + name + "\" (text, integer, boolean, enum, pattern, url, mac or secret)");
    for (const std::string& member : definition.getMemberNames()) {
        require(contains(common, member) || contains(type->limits, member),
                "type \"" + name + "\" has no member \"" + member + "\"");
    }
    return type->make(definition);
}

std::vector<std::string> limitNames(const std::string& type) {
    const Type* const found = findType(type);
    return found == nullptr ? std::vector<std::string>() : found->limits;
}

}  // namespace propertyservice
