#include "lint/Document.h"

#include <libxml/encoding.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstring>

#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "common/StopSignal.h"
#include "lint/MemoryFile.h"

namespace lint {

namespace {

bool isBlankText(const xmlChar* text) {
    return text == nullptr || std::strspn(reinterpret_cast<const char*>(text), " \t\r\n") ==
                                  std::strlen(reinterpret_cast<const char*>(text));
}

}  // namespace

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
    if (!load("document", memoryFile(bytes))) return false;
    number();
    return !nodes_.empty();
}

// Gives each element its index. For the way back the node points to its count of visits.
void Document::number() {
    xmlNode* node = xmlDocGetRootElement(document());
    const xmlNode* const root = node;
    while (node != nullptr) {
        if (node->type == XML_ELEMENT_NODE) nodes_.push_back(node);
        if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
            node = node->children;
            continue;
        }
        while (node != root && node->next == nullptr) node = node->parent;
        node = node == root ? nullptr : node->next;
    }
    visits_.assign(nodes_.size(), 0);
    for (std::size_t index = 0; index < nodes_.size(); ++index) nodes_[index]->_private = &visits_[index];
}

std::size_t Document::indexOf(const _xmlNode* node) const {
    return static_cast<std::size_t>(static_cast<const unsigned*>(node->_private) - visits_.data());
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
    return current() != nullptr && current()->type == XML_ELEMENT_NODE ? indexOf(current()) : none;
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

std::string Document::encoding() const {
    if (document()->encoding == nullptr) return "";
    const auto encoding = xmlParseCharEncoding(reinterpret_cast<const char*>(document()->encoding));
    if (encoding == XML_CHAR_ENCODING_UTF8 || encoding == XML_CHAR_ENCODING_ASCII) return "";
    return reinterpret_cast<const char*>(document()->encoding);
}

std::string Document::nameOf(std::size_t element) const { return reinterpret_cast<const char*>(nodes_[element]->name); }

std::size_t Document::parentOf(std::size_t element) const {
    const xmlNode* const parent = nodes_[element]->parent;
    return parent != nullptr && parent->type == XML_ELEMENT_NODE ? indexOf(parent) : none;
}

bool Document::hasContent(std::size_t element) const { return nodes_[element]->children != nullptr; }

bool Document::hasElements(std::size_t element) const {
    for (const xmlNode* child = nodes_[element]->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE) return true;
    }
    return false;
}

bool Document::hasText(std::size_t element) const {
    for (const xmlNode* child = nodes_[element]->children; child != nullptr; child = child->next) {
        const bool isText = child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE;
        if (isText && !isBlankText(child->content)) return true;
    }
    return false;
}

zav::Attributes Document::attributesOf(std::size_t element) const {
    zav::Attributes found;
    for (const xmlAttr* attribute = nodes_[element]->properties; attribute != nullptr; attribute = attribute->next) {
        xmlChar* value = xmlGetProp(nodes_[element], attribute->name);
        found.emplace(reinterpret_cast<const char*>(attribute->name),
                      value == nullptr ? "" : reinterpret_cast<const char*>(value));
        xmlFree(value);
    }
    return found;
}

long Document::lineOf(std::size_t element) const { return xmlGetLineNo(nodes_[element]); }

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
