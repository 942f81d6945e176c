#include "catalogue/Catalogue.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string_view>
#include <utility>

#include "common/Descriptor.h"
#include "debug/Debug.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Utf8.h"

namespace propertyservice {

namespace {

constexpr std::size_t maxFileBytes = 8 * 1024 * 1024;
constexpr std::size_t maxKeys = 1000000;

// The bytes that a segment of a key may have.
constexpr std::array<bool, 256> isPlain = [] {
    std::array<bool, 256> plain{};
    for (const char byte : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-")) {
        plain[static_cast<unsigned char>(byte)] = true;
    }
    return plain;
}();

[[noreturn]] void failAt(const std::string& name, int line, const std::string& key, const std::string& reason) {
    throw CatalogueException(name + ":" + std::to_string(line) + ": " + (key.empty() ? "" : key + ": ") + reason);
}

class Source {
 public:
    Source(const std::string& text, const std::string& name) : text_(text), name_(name) {
        for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 1)) {
            lineEnds_.push_back(static_cast<ptrdiff_t>(end));
        }
    }

    int lineOf(const Json::Value& value) const {
        const auto next = std::lower_bound(lineEnds_.begin(), lineEnds_.end(), value.getOffsetStart());
        return 1 + static_cast<int>(next - lineEnds_.begin());
    }

    [[noreturn]] void fail(int line, const std::string& key, const std::string& reason) const {
        failAt(name_, line, key, reason);
    }

    Json::Value root() const {
        Json::Value root;
        const auto error = propertyprotocol::parseJson(text_, root);
        if (!error) return root;
        if (error->nestedTooDeeply) throw CatalogueException(name_ + ": is nested too deeply");
        throw CatalogueException(name_ + ":" + std::to_string(error->line) + ":" + std::to_string(error->column) +
                                 ": " + error->reason);
    }

 private:
    const std::string& text_;
    const std::string& name_;
    std::vector<ptrdiff_t> lineEnds_;  // offsets of the line breaks, ascending
};

/// The number of the first line that is not UTF-8, 0 if there is none.
int invalidUtf8Line(const std::string& text) {
    if (propertyprotocol::isUtf8WithoutNul(text)) return 0;
    std::istringstream lines(text);
    std::string line;
    int number = 1;
    while (std::getline(lines, line) && propertyprotocol::isUtf8WithoutNul(line)) ++number;
    return number;
}

bool flag(const Json::Value& json, const char* name) {
    require(!json.isMember(name) || json[name].isBool(), "\"" + std::string(name) + "\" must be true or false");
    return json[name].asBool();
}

std::vector<std::string> refusedSourcesOf(const Json::Value& json) {
    std::vector<std::string> sources;
    if (!json.isMember("refusedSources")) return sources;
    const Json::Value& list = json["refusedSources"];
    require(list.isArray() && !list.empty(), "\"refusedSources\" must be an array such as [\"provisioning\"]");
    for (const Json::Value& source : list) {
        require(source.isString() && !source.asString().empty(),
                "each of \"refusedSources\" must be a non-empty string");
        require(dbg::escapeControls(source.asString()) == source.asString(),
                "each of \"refusedSources\" must be a single line");
        require(std::find(sources.begin(), sources.end(), source.asString()) == sources.end(),
                "duplicate \"" + source.asString() + "\" in \"refusedSources\"");
        sources.push_back(source.asString());
    }
    return sources;
}

std::string limitsOf(const Json::Value& json, const std::string& type) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    std::string limits;
    for (const std::string& name : limitNames(type)) {
        if (!json.isMember(name)) continue;
        limits += (limits.empty() ? "\"" : ",\"") + name + "\":" + Json::writeString(builder, json[name]);
    }
    return limits;
}

std::shared_ptr<const Definition> readDefinition(const Json::Value& json) {
    require(json.isObject(), "the definition must be an object");
    auto definition = std::make_shared<Definition>();
    definition->rule = makeValueRule(json);
    definition->type = json["type"].asString();
    definition->limits = limitsOf(json, definition->type);
    require(json["description"].isString() && !json["description"].asString().empty(), "\"description\" is missing");
    definition->description = json["description"].asString();
    require(dbg::escapeControls(definition->description) == definition->description,
            "\"description\" must be a single line");
    definition->readOnly = flag(json, "readOnly");
    definition->isVolatile = flag(json, "volatile");
    definition->refusedSources = refusedSourcesOf(json);
    require(!definition->readOnly || definition->refusedSources.empty(),
            "\"refusedSources\" is redundant with \"readOnly\"");
    require(json["default"].isString(), "\"default\" is missing or not a string (write \"5\", not 5)");
    definition->defaultValue = json["default"].asString();
    require(definition->defaultValue.find('\0') == std::string::npos, "the default must not contain a NUL");
    require(definition->defaultValue.size() <= propertyprotocol::maxValueBytes,
            "the default must be at most " + std::to_string(propertyprotocol::maxValueBytes) + " bytes long");
    const std::string objection = definition->rule(definition->defaultValue);
    if (!objection.empty()) {
        const std::string shown = definition->isSecret() ? "" : " \"" + definition->defaultValue + "\"";
        throw std::invalid_argument("the default" + shown + " " + objection);
    }
    return definition;
}

// A name can be megabytes long, as its length is checked late.
std::string excerpt(const std::string& name) {
    constexpr std::size_t maxBytes = 300;
    if (name.size() <= maxBytes) return name;
    std::size_t end = maxBytes;
    while ((static_cast<unsigned char>(name[end]) & 0xc0U) == 0x80) --end;  // within a UTF-8 sequence
    return name.substr(0, end) + "...";
}

}  // namespace

bool Definition::refuses(const std::string& source) const {
    return std::find(refusedSources.begin(), refusedSources.end(), source) != refusedSources.end();
}

bool isKey(std::string_view text) {
    if (text.empty() || text.size() > propertyprotocol::maxKeyBytes) return false;
    char previous = '.';
    for (const char letter : text) {
        if (!isPlain[static_cast<unsigned char>(letter)] && (letter != '.' || previous == '.')) return false;
        previous = letter;
    }
    return previous != '.';
}

bool isState(std::string_view key) { return key.compare(0, 6, "State.") == 0; }

Definitions Definitions::load(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw CatalogueException(path + ": cannot be opened: " + common::reasonOf(errno));
    }
    // Grows with the file: a buffer of the greatest size would cost more than to parse a usual catalogue.
    std::string text;
    std::array<char, 65536> part;
    while (text.size() <= maxFileBytes && file) {
        file.read(part.data(), part.size());
        text.append(part.data(), static_cast<std::size_t>(file.gcount()));
    }
    if (file.bad() || (file.fail() && !file.eof())) throw CatalogueException(path + ": cannot be read");
    if (text.size() > maxFileBytes) throw CatalogueException(path + ": is larger than 8 MiB");
    return parse(text, path);
}

Definitions Definitions::parse(const std::string& text, const std::string& name) {
    const Source source(text, name);
    if (const int line = invalidUtf8Line(text)) source.fail(line, "", "is not UTF-8 text");
    const Json::Value root = source.root();
    if (!root.isObject()) source.fail(1, "", "the catalogue must be an object");
    for (const std::string& member : root.getMemberNames()) {
        if (member != "version" && member != "keys") {
            source.fail(source.lineOf(root[member]), "", "unknown member \"" + member + "\"");
        }
    }
    if (root["version"] != 1) source.fail(1, "", "\"version\" must be 1");
    if (!root["keys"].isObject()) source.fail(1, "", "\"keys\" is missing or not an object");

    Definitions definitions;
    definitions.name_ = name;
    std::size_t count = 0;
    const Json::Value& keys = root["keys"];
    for (const std::string& member : keys.getMemberNames()) {
        const Json::Value& json = keys[member];
        const int line = source.lineOf(json);
        try {
            const std::shared_ptr<const Definition> definition = readDefinition(json);
            const KeyPattern pattern(member);
            require(pattern.size() <= maxKeys - count,
                    "the catalogue has more than " + std::to_string(maxKeys) + " keys");
            count += pattern.size();
            // The keys of a pattern differ in digits only, so one stands for all.
            const std::string key = pattern.example();
            require(isKey(key),
                    "is not a valid key: letters, digits, \"_\" and \"-\" in segments between dots, at most 255 bytes");
            require(!isState(key) || !json.isMember("volatile") || definition->isVolatile,
                    "keys below \"State.\" are volatile");
            definitions.all_.push_back({pattern, definition, line});
        } catch (const std::invalid_argument& error) {
            source.fail(line, excerpt(member), error.what());
        }
    }
    return definitions;
}

Catalogue::Catalogue(const Definitions& definitions) : texts_(std::make_shared<common::TextBlocks>()) {
    std::size_t count = 0;
    for (const auto& defined : definitions.all_) count += defined.pattern.size();
    keys_.reserve(count);
    bool isAscending = true;  // as the patterns are sorted, and so are the keys of most of them
    for (const Definitions::Defined& defined : definitions.all_) {
        defined.pattern.expand([&](std::string_view key) {
            isAscending = isAscending && (keys_.empty() || keys_.back().key < key);
            keys_.push_back({texts_->copy(key), defined.definition, defined.line});
        });
    }
    if (isAscending) return;
    std::sort(keys_.begin(), keys_.end(), [](const CatalogueKey& left, const CatalogueKey& right) {
        return left.key != right.key ? left.key < right.key : left.line < right.line;
    });
    const auto duplicate =
        std::adjacent_find(keys_.begin(), keys_.end(),
                           [](const CatalogueKey& left, const CatalogueKey& right) { return left.key == right.key; });
    if (duplicate != keys_.end()) {
        failAt(definitions.name_, (duplicate + 1)->line, std::string(duplicate->key),
               "duplicate key, first defined in line " + std::to_string(duplicate->line));
    }
}

}  // namespace propertyservice
