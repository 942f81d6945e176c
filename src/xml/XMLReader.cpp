#include "xml/XMLReader.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>

#include <new>

#include "common/PathRoot.h"

namespace zav {

namespace {

using Kind = xml::Tree::Kind;

// Whether the descriptor is a regular file of acceptable size.
bool isDocument(int file) {
    struct stat status {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= XMLReader::maximumFileSize;
}

}  // namespace

XMLReader::~XMLReader() { xmlFreeDoc(document_); }

bool XMLReader::load(const std::string& path) {
    const std::string onDisk = common::rooted(path);
    return load(onDisk, common::Descriptor(open(onDisk.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
}

bool XMLReader::load(const std::string& name, common::Descriptor file) {
    release();
    failure_ = {xml::ParseFailure::Kind::unreadable, "", 0, 0};
    if (file.get() >= 0 && isDocument(file.get())) {
        const xml::DocumentScope scope(name, file, tree_);
        document_ = xmlParseFile(name.c_str());
        failure_ = xml::DocumentScope::failure();
        if (document_ == nullptr) tree_.clear();
        if (xml::DocumentScope::outOfMemory()) throw std::bad_alloc();
    }
    XMLReader::reset();
    return document_ != nullptr;
}

void XMLReader::release() {
    tree_.clear();
    xmlFreeDoc(document_);
    document_ = nullptr;
    XMLReader::reset();
}

void XMLReader::reset() {
    current_ = tree_.root();
    savedPositions_ = {};
}

bool XMLReader::nextSibling() {
    if (current_ != nullptr) current_ = current_->next;
    return current_ != nullptr;
}

bool XMLReader::firstChild() {
    if (current_ != nullptr) current_ = current_->firstChild;
    return current_ != nullptr;
}

std::string XMLReader::name() {
    return current_ == nullptr || current_->name == nullptr ? std::string() : current_->name;
}

std::map<std::string, std::string> XMLReader::attributes() {
    return current_ == nullptr ? std::map<std::string, std::string>() : attributesOf(*current_);
}

bool XMLReader::hasChildren() {
    return current_ != nullptr && current_->kind == Kind::element && current_->content != xml::Tree::Content::none;
}

void XMLReader::savePosition() { savedPositions_.push(current_); }

void XMLReader::restorePosition() { current_ = savedPositions_.empty() ? nullptr : savedPositions_.top(); }

std::string XMLReader::encoding() const {
    const bool known = document_ != nullptr && document_->encoding != nullptr;
    return known ? reinterpret_cast<const char*>(document_->encoding) : "";
}

std::map<std::string, std::string> XMLReader::attributesOf(const xml::Tree::Node& node) {
    std::map<std::string, std::string> attributes;
    for (std::uint32_t index = 0; index < node.attributeCount; ++index) {
        attributes.emplace(node.attributes[index].name, node.attributes[index].value);
    }
    return attributes;
}

}  // namespace zav
