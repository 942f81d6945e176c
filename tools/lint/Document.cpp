#include "lint/Document.h"

#include <libxml/encoding.h>

#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "common/StopSignal.h"
#include "lint/MemoryFile.h"

namespace lint {

using Node = zav::xml::Tree::Node;
using zav::xml::Tree;

class Document::Parser final : public zav::ProvisioningFileParser {
 public:
    explicit Parser(Document& document)
        : zav::ProvisioningFileParser("", document, nullptr, Decryption::none), document_(document) {}

 protected:
    void reportMixedItems(const std::string&) override { document_.open_.back().isMixed = true; }

 private:
    Document& document_;
};

bool Document::parse(const std::string& bytes) {
    nodes_.clear();
    parents_.clear();
    if (!load("document", memoryFile(bytes))) return false;
    listElements();
    visits_.assign(nodes_.size(), 0);
    return !nodes_.empty();
}

// In document order, which is that of their indices.
void Document::listElements() {
    struct Next {
        const Node* node;
        std::size_t parent;
    };
    std::vector<Next> left{{tree().root(), none}};
    while (!left.empty()) {
        const auto [node, parent] = left.back();
        left.pop_back();
        if (node == nullptr) continue;
        if (node != tree().root()) left.push_back({node->next, parent});
        if (node->kind != Tree::Kind::element) continue;
        nodes_.push_back(node);
        parents_.push_back(parent);
        left.push_back({node->firstChild, node->index});
    }
}

void Document::walk() {
    zav::Pass pass(nullptr, std::make_shared<common::StopSignal>());
    Parser parser(*this);
    jobs_.clear();
    levels_.clear();
    open_.assign(1, WalkLevel());
    reset();
    parser.collectJobs(jobs_);
    itemCount_ = 0;
    for (const WalkLevel& level : levels_) itemCount_ += level.items.size();
    matchJobs();
}

// The walk ends levels in the order in which it appends their jobs.
void Document::matchJobs() {
    std::size_t job = 0;
    for (WalkLevel& level : levels_) {
        if (level.items.empty() || level.isMixed) continue;
        if (job == jobs_.size()) {
            exceedsLimits_ = true;
            return;
        }
        level.job = job++;
    }
}

std::size_t Document::indexOfCurrent() const {
    return current() != nullptr && current()->kind == Tree::Kind::element ? current()->index : none;
}

bool Document::hasChildren() {
    const std::size_t index = indexOfCurrent();
    if (index != none) ++visits_[index];
    return XMLReader::hasChildren();
}

bool Document::firstChild() {
    open_.emplace_back();
    open_.back().parent = indexOfCurrent();
    return XMLReader::firstChild();
}

std::map<std::string, std::string> Document::attributes() {
    auto found = XMLReader::attributes();
    const std::size_t index = indexOfCurrent();
    WalkLevel& level = open_.back();
    if (index == none) {
        if (level.foreign == none) level.foreign = level.leaves.empty() ? level.parent : level.leaves.back();
    } else {
        level.leaves.push_back(index);
        if (!found.empty()) level.items.push_back(index);
    }
    return found;
}

void Document::restorePosition() {
    XMLReader::restorePosition();
    if (open_.empty()) return;
    levels_.push_back(std::move(open_.back()));
    open_.pop_back();
}

std::string Document::foreignEncoding() const {
    const std::string name = encoding();
    const auto known = xmlParseCharEncoding(name.c_str());
    return known == XML_CHAR_ENCODING_UTF8 || known == XML_CHAR_ENCODING_ASCII ? "" : name;
}

std::string Document::nameOf(std::size_t element) const { return nodes_[element]->name; }

std::size_t Document::parentOf(std::size_t element) const { return parents_[element]; }

bool Document::hasContent(std::size_t element) const { return nodes_[element]->content != Tree::Content::none; }

bool Document::hasElements(std::size_t element) const {
    for (const Node* child = nodes_[element]->firstChild; child != nullptr; child = child->next) {
        if (child->kind == Tree::Kind::element) return true;
    }
    return false;
}

bool Document::hasText(std::size_t element) const { return nodes_[element]->content == Tree::Content::text; }

zav::Attributes Document::attributesOf(std::size_t element) const { return XMLReader::attributesOf(*nodes_[element]); }

long Document::lineOf(std::size_t element) const { return nodes_[element]->line; }

namespace {

// UTF-16 needs no declaration.
std::string detected(const std::string& bytes, const std::string& declared) {
    const std::string mark = bytes.substr(0, 2);
    if (mark == "\xFF\xFE" || mark == std::string("<\0", 2)) return "UTF-16LE";
    if (mark == "\xFE\xFF" || mark == std::string("\0<", 2)) return "UTF-16BE";
    return declared;
}

}  // namespace

std::string toUtf8(const std::string& bytes, const std::string& declared) {
    const std::string encoding = detected(bytes, declared);
    if (encoding.empty()) return bytes;
    std::string text;
    xmlBufferPtr from = xmlBufferCreateSize(bytes.size() + 4);
    xmlBufferPtr to = xmlBufferCreateSize(2 * bytes.size() + 4);
    xmlCharEncodingHandlerPtr handler = xmlFindCharEncodingHandler(encoding.c_str());
    if (from != nullptr && to != nullptr && handler != nullptr) {
        xmlBufferAdd(from, reinterpret_cast<const xmlChar*>(bytes.data()), static_cast<int>(bytes.size()));
        // Each call converts a part.
        int left = -1;
        while (xmlBufferLength(from) > 0 && xmlBufferLength(from) != left) {
            left = xmlBufferLength(from);
            if (xmlCharEncInFunc(handler, to, from) < 0) break;
        }
        text.assign(reinterpret_cast<const char*>(xmlBufferContent(to)), static_cast<std::size_t>(xmlBufferLength(to)));
    }
    if (handler != nullptr) xmlCharEncCloseFunc(handler);
    xmlBufferFree(from);
    xmlBufferFree(to);
    return text.empty() ? bytes : text;
}

}  // namespace lint
