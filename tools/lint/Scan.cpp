#include "lint/Scan.h"

#include <algorithm>

namespace lint {

namespace {

class Scanner {
 public:
    explicit Scanner(const std::string& text) : text_(text) {}

    Places run() {
        while ((at_ = text_.find('<', at_)) < text_.size()) {
            if (begins("<!--")) {
                skipBehind("-->");
            } else if (begins("<![CDATA[")) {
                places_.foreign.emplace_back(at_, places_.elements.size());
                skipBehind("]]>");
            } else if (begins("<!")) {
                skipDeclaration();
            } else if (begins("<?")) {
                places_.foreign.emplace_back(at_, places_.elements.size());
                skipBehind("?>");
            } else if (begins("</")) {
                skipBehind(">");
            } else {
                readElement();
            }
        }
        return std::move(places_);
    }

 private:
    bool begins(const char* what) const { return text_.compare(at_, std::char_traits<char>::length(what), what) == 0; }

    void skipBehind(const char* what) {
        const std::size_t found = text_.find(what, at_);
        at_ = found == std::string::npos ? text_.size() : found + std::char_traits<char>::length(what);
    }

    // A DOCTYPE with its internal subset.
    void skipDeclaration() {
        ++at_;
        int depth = 0;
        while (at_ < text_.size()) {
            const char c = text_[at_];
            if (begins("<!--")) {
                skipBehind("-->");
                continue;
            }
            if (begins("<?")) {
                skipBehind("?>");
                continue;
            }
            if (c == '"' || c == '\'') {
                at_ = std::min(text_.find(c, at_ + 1), text_.size());
            } else if (c == '<' || c == '[') {
                ++depth;
            } else if (c == ']') {
                --depth;
            } else if (c == '>' && depth-- == 0) {
                ++at_;
                return;
            }
            if (at_ < text_.size()) ++at_;
        }
    }

    static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
    static bool endsName(char c) { return isBlank(c) || c == '=' || c == '>' || c == '/'; }

    void skipName() {
        while (at_ < text_.size() && !endsName(text_[at_])) ++at_;
    }

    void readElement() {
        ElementPlace element{++at_, 0, places_.attributes.size(), 0};
        skipName();
        element.nameEnd = at_;
        while (at_ < text_.size() && text_[at_] != '>') {
            if (isBlank(text_[at_]) || text_[at_] == '/') {
                ++at_;
                continue;
            }
            AttributePlace attribute{at_, 0, 0};
            skipName();
            attribute.nameEnd = at_;
            const std::size_t quote = text_.find_first_of("\"'", at_);
            if (quote == std::string::npos || attribute.nameEnd == attribute.name) {
                at_ = text_.size();
                break;
            }
            attribute.value = quote + 1;
            at_ = std::min(text_.find(text_[quote], quote + 1), text_.size());
            if (at_ < text_.size()) ++at_;
            places_.attributes.push_back(attribute);
        }
        element.attributeCount = places_.attributes.size() - element.firstAttribute;
        places_.elements.push_back(element);
    }

    const std::string& text_;
    std::size_t at_ = 0;
    Places places_;
};

}  // namespace

Places scan(const std::string& text) { return Scanner(text).run(); }

}  // namespace lint
