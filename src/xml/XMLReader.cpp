#include "xml/XMLReader.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>

#include "common/PathRoot.h"

namespace zav {

namespace {

std::string text(const xmlChar* string) {
    return string == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(string));
}

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
        const xml::DocumentScope scope(name, file);
        document_ = xmlParseFile(name.c_str());
        failure_ = xml::DocumentScope::failure();
    }
    XMLReader::reset();
    return document_ != nullptr;
}

void XMLReader::release() {
    xmlFreeDoc(document_);
    document_ = nullptr;
    XMLReader::reset();
}

void XMLReader::reset() {
    current_ = document_ == nullptr ? nullptr : xmlDocGetRootElement(document_);
    savedPositions_ = {};
}

bool XMLReader::nextSibling() {
    if (current_ != nullptr) {
        current_ = current_->next;
        skipTextAndComments();
    }
    return current_ != nullptr;
}

bool XMLReader::firstChild() {
    if (current_ != nullptr) {
        current_ = current_->children;
        skipTextAndComments();
    }
    return current_ != nullptr;
}

std::string XMLReader::name() { return current_ == nullptr ? std::string() : text(current_->name); }

std::map<std::string, std::string> XMLReader::attributes() {
    std::map<std::string, std::string> attributes;
    if (current_ == nullptr || current_->type != XML_ELEMENT_NODE) return attributes;
    for (const xmlAttr* attribute = current_->properties; attribute != nullptr; attribute = attribute->next) {
        xmlChar* value = xmlGetProp(current_, attribute->name);
        attributes.emplace(text(attribute->name), text(value));
        xmlFree(value);
    }
    return attributes;
}

bool XMLReader::hasChildren() {
    return current_ != nullptr && current_->type == XML_ELEMENT_NODE && current_->children != nullptr;
}

void XMLReader::savePosition() { savedPositions_.push(current_); }

void XMLReader::restorePosition() { current_ = savedPositions_.empty() ? nullptr : savedPositions_.top(); }

void XMLReader::dropAttributes() {
    if (current_ == nullptr || current_->type != XML_ELEMENT_NODE) return;
    xmlFreePropList(current_->properties);
    current_->properties = nullptr;
}

void XMLReader::skipTextAndComments() {
    while (current_ != nullptr && (current_->type == XML_TEXT_NODE || current_->type == XML_COMMENT_NODE)) {
        current_ = current_->next;
    }
}

}  // namespace zav
