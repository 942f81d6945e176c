#include "pack/FileKind.h"

#include <algorithm>
#include <array>
#include <optional>

#include "pack/Container.h"
#include "pack/Files.h"
#include "propertyprotocol/Utf8.h"

namespace pack {

namespace {

constexpr std::array<const char*, 6> provisioningRoots{"provisioning", "firmware", "nvm",
                                                       "settings",     "custom",   "scenario"};
constexpr char initialFileName[] = "provisioning.xml";
constexpr char blanks[] = " \t\r\n";
constexpr char utf8Mark[] = "\xef\xbb\xbf";

bool startsWith(const std::string& text, std::size_t at, const char* word) {
    return text.compare(at, std::char_traits<char>::length(word), word) == 0;
}

// Element names of the format are ASCII, so the other half of each UTF-16 unit is of no interest.
std::string narrowed(const std::string& bytes) {
    const auto unit = [&](std::size_t low, std::size_t high) { return bytes[low] == '<' && bytes[high] == '\0'; };
    const bool marked = startsWith(bytes, 0, "\xff\xfe") || startsWith(bytes, 0, "\xfe\xff");
    const std::size_t begin = marked ? 2 : 0;
    if (bytes.size() < begin + 2) return bytes;
    const bool little = marked ? startsWith(bytes, 0, "\xff\xfe") : unit(0, 1);
    if (!little && !marked && !unit(1, 0)) return bytes;
    std::string text;
    text.reserve(bytes.size() / 2);
    for (std::size_t at = begin + (little ? 0 : 1); at < bytes.size(); at += 2) text += bytes[at];
    return text;
}

std::size_t skipPast(const std::string& text, std::size_t at, const char* end) {
    const std::size_t found = text.find(end, at);
    return found == std::string::npos ? found : found + std::char_traits<char>::length(end);
}

std::size_t skipDocumentType(const std::string& text, std::size_t at) {
    int depth = 0;
    while (at < text.size()) {
        const char c = text[at];
        if (startsWith(text, at, "<!--")) {
            at = skipPast(text, at + 4, "-->");
        } else if (startsWith(text, at, "<?")) {
            at = skipPast(text, at + 2, "?>");
        } else if (c == '"' || c == '\'') {
            at = skipPast(text, at + 1, c == '"' ? "\"" : "'");
        } else {
            ++at;
            if (c == '[' || c == ']') depth += c == '[' ? 1 : -1;
            if (c == '>' && depth == 0) return at;
        }
    }
    return std::string::npos;
}

// Where the root element's "<" is, behind declaration, comments, instructions and document type.
std::size_t findRoot(const std::string& text) {
    std::size_t at = startsWith(text, 0, utf8Mark) ? 3 : 0;
    while (at != std::string::npos) {
        at = text.find_first_not_of(blanks, at);
        if (at == std::string::npos || text[at] != '<') return std::string::npos;
        if (startsWith(text, at, "<?")) {
            at = skipPast(text, at + 2, "?>");
        } else if (startsWith(text, at, "<!--")) {
            at = skipPast(text, at + 4, "-->");
        } else if (startsWith(text, at, "<!DOCTYPE")) {
            at = skipDocumentType(text, at);
        } else {
            return at;
        }
    }
    return at;
}

struct Root {
    std::string name;
    std::string tag;  // the whole start tag, as far as it is there
};

std::optional<Root> rootOf(const std::string& bytes) {
    const std::string text = narrowed(bytes);
    const std::size_t at = findRoot(text);
    if (at == std::string::npos) return std::nullopt;
    const std::size_t end = text.find_first_of(" \t\r\n/>", at + 1);
    std::string name = text.substr(at + 1, end == std::string::npos ? end : end - at - 1);
    const std::size_t colon = name.find(':');
    if (colon != std::string::npos) name.erase(0, colon + 1);
    if (name.empty()) return std::nullopt;
    return Root{name, text.substr(at, text.find('>', at) - at)};
}

std::string lowered(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

bool isProvisioningRoot(const std::string& name) {
    return std::find(provisioningRoots.begin(), provisioningRoots.end(), name) != provisioningRoots.end();
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool isInitialFileName(const std::string& name) {
    return name == initialFileName || endsWith(name, std::string("/") + initialFileName);
}

std::string problemOfRoot(const std::string& name, const Root& root) {
    const std::string found = "its root element is \"" + printable(root.name) + "\"";
    if (isProvisioningRoot(lowered(root.name))) return found + "; the phone wants \"" + lowered(root.name) + "\"";
    if (root.tag.find("productID") != std::string::npos || isInitialFileName(name)) {
        return found + "; the phone wants one of provisioning, firmware, nvm, settings, custom, scenario";
    }
    return "";
}

}  // namespace

bool isXml(const std::string& bytes) {
    const std::string text = narrowed(bytes);
    const std::size_t at = text.find_first_not_of(blanks, startsWith(text, 0, utf8Mark) ? 3 : 0);
    return at != std::string::npos && text[at] == '<';
}

bool isReadable(const std::string& bytes) {
    if (classify("", bytes).kind == FileKind::provisioning) return true;
    const bool hasControls = std::any_of(bytes.begin(), bytes.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 &&
               std::char_traits<char>::find(blanks, sizeof blanks - 1, c) == nullptr;
    });
    return !hasControls && propertyprotocol::isUtf8(bytes);
}

Classification classify(const std::string& name, const std::string& bytes) {
    Classification result;
    if (isEncrypted(bytes)) {
        result.kind = FileKind::encrypted;
        return result;
    }
    const std::optional<Root> root = rootOf(bytes);
    if (!root) {
        if (endsWith(lowered(name), ".xml")) {
            result.problem = bytes.empty() ? "the file is empty" : "is not an XML document: no root element";
        }
        return result;
    }
    result.root = root->name;
    if (isProvisioningRoot(root->name)) {
        result.kind = FileKind::provisioning;
    } else {
        result.problem = problemOfRoot(name, *root);
    }
    return result;
}

}  // namespace pack
