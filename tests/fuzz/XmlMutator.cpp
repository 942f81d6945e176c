#include "fuzz/XmlMutator.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace fuzz {

namespace {

using Random = std::minstd_rand;

constexpr std::size_t maximumDepth = 64;

const char* const names[] = {"provisioning", "category", "firmware", "nvm",  "settings", "custom",
                             "scenario",     "file",     "param",    "step", "p:param",  "a"};
const char* const attributeNames[] = {"version", "productID", "macAddress", "name",        "value", "url",
                                      "type",    "flags",     "p:version",  "renewPeriod", "a",     "xmlns:p"};
const char* const values[] = {
    "",
    "1.0",
    "1.1",
    "1.05",
    "2.0",
    "kd4v",
    "00:0a:0b:0c:0d:0e",
    "00:0A",
    "V001.002.003",
    "2025-01-31_23:59:59",
    "2025-13-31_23:59:59",
    "firmware",
    "nvm",
    "custom",
    "Telephony.Name",
    "PhoneUI.Keys.FunctionKeys.1.Label",
    "PhoneUI.Keys.FunctionKeys.2.Label",
    "PhoneUI.Keys.FunctionKeys.2.LockProvisioning",
    "PhoneUI.Keys.FunctionKeys.x.Label",
    "PhoneUI.Keys.FunctionKeys.99999999999.Label",
    "PhoneUI.Keys.FunctionKeys.",
    "/settings.xml",
    "/%MACC/%MACD/%DVID.xml",
    "http://server.test/a.xml?b=c#d",
    "https://user:pass@[::1]:8443/a/../b",
    "FORCE_ACCEPT",
    "Redirect",
    "certificate",
    "LocalPhoneBook",
    "UnlockAllFunctionKeys",
    "&amp;&lt;&#10;&#x7f;&#xe4;",
};
const char* const texts[] = {"", " ", "\n", "text", "<!-- comment -->", "<![CDATA[data]]>", "<?target data?>", "&amp;"};

template <typename List>
std::size_t below(Random& random, const List& list) {
    return std::uniform_int_distribution<std::size_t>(0, std::size(list) - 1)(random);
}

template <typename List>
auto& oneOf(Random& random, List& list) {
    return list[below(random, list)];
}

struct Element {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes;
    std::string text;  // before the first child
    std::vector<Element> children;
};

class Reader {
 public:
    explicit Reader(const std::string& text) : text_(text) {}

    std::optional<Element> document() {
        skipProlog();
        Element root;
        if (!readElement(root, 0)) return std::nullopt;
        skipBlanks();
        if (at_ != text_.size()) return std::nullopt;
        return root;
    }

 private:
    bool isAt(const char* token) const { return text_.compare(at_, std::char_traits<char>::length(token), token) == 0; }
    void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }
    void skipProlog() {
        skipBlanks();
        if (!isAt("<?xml")) return;
        const auto end = text_.find("?>", at_);
        at_ = end == std::string::npos ? text_.size() : end + 2;
        skipBlanks();
    }
    std::string upTo(const char* ends) {
        const auto end = std::min(text_.find_first_of(ends, at_), text_.size());
        std::string part = text_.substr(at_, end - at_);
        at_ = end;
        return part;
    }

    bool readAttribute(Element& element) {
        std::string name = upTo("=<>/ \t\r\n\"'");
        if (name.empty() || !isAt("=") || at_ + 1 >= text_.size()) return false;
        const char quote = text_[at_ + 1];
        if (quote != '"' && quote != '\'') return false;
        const auto end = text_.find(quote, at_ + 2);
        if (end == std::string::npos) return false;
        std::string value = text_.substr(at_ + 2, end - at_ - 2);
        if (value.find_first_of("\"<") != std::string::npos) return false;
        element.attributes.emplace_back(std::move(name), std::move(value));
        at_ = end + 1;
        return true;
    }

    bool readElement(Element& element, std::size_t depth) {
        if (depth > maximumDepth || !isAt("<")) return false;
        ++at_;
        element.name = upTo(" \t\r\n/><=\"'");
        if (element.name.empty() || element.name.find_first_of("!?") != std::string::npos) return false;
        for (skipBlanks(); !isAt(">") && !isAt("/>"); skipBlanks()) {
            if (!readAttribute(element)) return false;
        }
        if (isAt("/>")) {
            at_ += 2;
            return true;
        }
        ++at_;
        return readContent(element, depth);
    }

    // Keeps comments, instructions and character data as text.
    bool readContent(Element& element, std::size_t depth) {
        for (;;) {
            element.text += upTo("<");
            if (at_ >= text_.size()) return false;
            if (isAt("</")) break;
            if (isAt("<!") || isAt("<?")) {
                const char* const end = isAt("<!--") ? "-->" : isAt("<![CDATA[") ? "]]>" : "?>";
                const auto found = text_.find(end, at_);
                if (found == std::string::npos) return false;
                const auto next = found + std::char_traits<char>::length(end);
                element.text += text_.substr(at_, next - at_);
                at_ = next;
                continue;
            }
            element.children.emplace_back();
            if (!readElement(element.children.back(), depth + 1)) return false;
        }
        at_ += 2;
        if (upTo(">") != element.name || !isAt(">")) return false;
        ++at_;
        return true;
    }

    const std::string& text_;
    std::size_t at_ = 0;
};

void write(std::string& text, const Element& element) {
    text += "<" + element.name;
    for (const auto& [name, value] : element.attributes) text += " " + name + "=\"" + value + "\"";
    if (element.text.empty() && element.children.empty()) {
        text += "/>";
        return;
    }
    text += ">" + element.text;
    for (const Element& child : element.children) write(text, child);
    text += "</" + element.name + ">";
}

void list(Element& element, std::vector<Element*>& all) {
    all.push_back(&element);
    for (Element& child : element.children) list(child, all);
}

Element newElement(Random& random) {
    Element element{oneOf(random, names), {}, "", {}};
    element.attributes.emplace_back(oneOf(random, attributeNames), oneOf(random, values));
    return element;
}

void setAttribute(Random& random, Element& element) {
    const std::string name = oneOf(random, attributeNames);
    const auto found = std::find_if(element.attributes.begin(), element.attributes.end(),
                                    [&](const auto& attribute) { return attribute.first == name; });
    if (found == element.attributes.end()) {
        element.attributes.emplace_back(name, oneOf(random, values));
    } else {
        found->second = oneOf(random, values);
    }
}

void insertCopy(Random& random, Element& parent, Element copy) {
    const auto at = std::uniform_int_distribution<std::size_t>(0, parent.children.size())(random);
    parent.children.insert(parent.children.begin() + static_cast<std::ptrdiff_t>(at), std::move(copy));
}

void changeChildren(Random& random, Element& element, unsigned how) {
    if (element.children.empty()) return insertCopy(random, element, newElement(random));
    const std::size_t index = below(random, element.children);
    switch (how) {
        case 0:
            element.children.erase(element.children.begin() + static_cast<std::ptrdiff_t>(index));
            break;
        case 1:
            insertCopy(random, element, element.children[index]);
            break;
        default:
            std::swap(element.children[index], oneOf(random, element.children));
    }
}

void changeAttributes(Random& random, Element& element, unsigned how) {
    if (how == 0 || element.attributes.empty()) return setAttribute(random, element);
    const std::size_t index = below(random, element.attributes);
    if (how == 1) {
        element.attributes.erase(element.attributes.begin() + static_cast<std::ptrdiff_t>(index));
    } else {
        element.attributes[index].second = oneOf(random, values);
    }
}

void wrap(Random& random, Element& element) {
    Element outer = newElement(random);
    outer.children.push_back(std::move(element));
    element = std::move(outer);
}

void change(Random& random, Element& root) {
    std::vector<Element*> all;
    list(root, all);
    Element& element = *oneOf(random, all);
    const unsigned kind = std::uniform_int_distribution<unsigned>(0, 10)(random);
    if (kind < 3) return changeChildren(random, element, kind);
    if (kind < 6) return changeAttributes(random, element, kind - 3);
    if (kind == 6) return insertCopy(random, element, newElement(random));
    if (kind == 7) return insertCopy(random, element, Element(*oneOf(random, all)));
    if (kind == 8) return wrap(random, element);
    if (kind == 9) {
        element.name = oneOf(random, names);
    } else {
        element.text = oneOf(random, texts);
    }
}

}  // namespace

std::string mutateXml(const std::string& document, std::uint32_t seed, std::size_t maximumSize) {
    std::optional<Element> root = Reader(document).document();
    if (!root) return "";
    Random random(seed);
    const unsigned changes = std::uniform_int_distribution<unsigned>(1, 4)(random);
    for (unsigned i = 0; i < changes; ++i) change(random, *root);
    std::string text;
    write(text, *root);
    return text.size() <= maximumSize ? text : "";
}

}  // namespace fuzz
