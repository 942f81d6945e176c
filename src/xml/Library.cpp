#include "xml/Library.h"

#include <libxml/SAX2.h>
#include <libxml/dict.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlerror.h>

#include <new>
#include <utility>

#include "common/ThreadSafety.h"

namespace zav::xml {

namespace {

common::Mutex mutex;
unsigned instances GUARDED_BY(mutex) = 0;

struct Document {
    const std::string* path = nullptr;
    common::Descriptor* file = nullptr;  // empty once libxml2 has taken it over
    unsigned nodes = 0;
    ParseFailure failure;
};

thread_local Document document;

ParseFailure::Kind kindOf(const xmlError& error) {
    if (error.code == XML_ERR_NO_MEMORY) return ParseFailure::Kind::names;  // what a full dictionary is reported as
    const bool isEncoding = error.domain == XML_FROM_I18N || error.code == XML_ERR_INVALID_ENCODING ||
                            error.code == XML_ERR_UNKNOWN_ENCODING || error.code == XML_ERR_UNSUPPORTED_ENCODING ||
                            error.code == XML_ERR_INVALID_CHAR;
    return isEncoding ? ParseFailure::Kind::encoding : ParseFailure::Kind::malformed;
}

// Instead of libxml2's output. It goes on behind an error, but only the first one is about the document.
void recordError(void*, xmlErrorPtr error) {
    if (error == nullptr || error->level != XML_ERR_FATAL || document.failure.kind != ParseFailure::Kind::none) return;
    document.failure = {kindOf(*error), "", error->line, error->int2};
    try {
        std::string message = error->message == nullptr ? "" : error->message;
        while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
        document.failure.message = std::move(message);
    } catch (const std::bad_alloc&) {  // must not pass through libxml2
    }
}

void refuse(void* context, ParseFailure::Kind kind) {
    auto* const parser = static_cast<xmlParserCtxtPtr>(context);
    if (document.failure.kind == ParseFailure::Kind::none) {
        document.failure = {kind, "", xmlSAX2GetLineNumber(context), xmlSAX2GetColumnNumber(context)};
    }
    parser->wellFormed = 0;  // xmlStopParser alone would return what was read so far
    xmlStopParser(parser);
}

void refuseEntity(void* context, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
    refuse(context, ParseFailure::Kind::entities);
}

void refuseUnparsedEntity(void* context, const xmlChar*, const xmlChar*, const xmlChar*, const xmlChar*) {
    refuse(context, ParseFailure::Kind::entities);
}

void refuseAttributeList(void* context, const xmlChar*, const xmlChar*, int, int, const xmlChar*,
                         xmlEnumerationPtr values) {
    xmlFreeEnumeration(values);
    refuse(context, ParseFailure::Kind::attributeList);
}

bool fits(void* context, unsigned nodes) {
    document.nodes += nodes;
    if (document.nodes <= maximumNodes) return true;
    refuse(context, ParseFailure::Kind::nodes);
    return false;
}

void countElement(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri, int namespaceCount,
                  const xmlChar** namespaces, int attributeCount, int defaulted, const xmlChar** attributes) {
    if (attributeCount > maximumAttributes) {
        refuse(context, ParseFailure::Kind::attributes);
        return;  // `attributes` points into the buffer that refuse() freed
    }
    if (!fits(context, 1 + static_cast<unsigned>(attributeCount) + static_cast<unsigned>(namespaceCount))) return;
    xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount, namespaces, attributeCount, defaulted,
                          attributes);
}

void countComment(void* context, const xmlChar* text) {
    if (fits(context, 1)) xmlSAX2Comment(context, text);
}

void countInstruction(void* context, const xmlChar* target, const xmlChar* data) {
    if (fits(context, 1)) xmlSAX2ProcessingInstruction(context, target, data);
}

void countCdata(void* context, const xmlChar* text, int length) {
    if (fits(context, 1)) xmlSAX2CDataBlock(context, text, length);
}

// Text only tells that its element is not empty, for which one text node is enough. Keeping all line breaks between
// elements would double the memory.
void keepFirstText(void* context, const xmlChar* text, int length) {
    const auto* const parser = static_cast<xmlParserCtxtPtr>(context);
    if (parser->node != nullptr && parser->node->children == nullptr) xmlSAX2Characters(context, text, length);
}

// libxml2's external-entity loader, which also opens the document itself. It reads from a descriptor: given a name,
// libxml2 would inflate gzip, xz and lzma files.
xmlParserInputPtr loadOnlyTheDocument(const char* url, const char*, xmlParserCtxtPtr context) {
    const bool isDocument = document.file != nullptr && document.file->get() >= 0 && url != nullptr &&
                            context != nullptr && *document.path == url && context->sax != nullptr;
    if (!isDocument) return nullptr;
    // Nothing has been parsed yet, so the handlers see the whole document.
    context->sax->entityDecl = refuseEntity;
    context->sax->unparsedEntityDecl = refuseUnparsedEntity;
    context->sax->attributeDecl = refuseAttributeList;
    context->sax->startElementNs = countElement;
    context->sax->comment = countComment;
    context->sax->processingInstruction = countInstruction;
    context->sax->cdataBlock = countCdata;
    context->sax->characters = keepFirstText;
    context->sax->ignorableWhitespace = keepFirstText;
    context->options |= XML_PARSE_COMPACT;  // stores short attribute values without an allocation
    xmlDictSetLimit(context->dict, maximumNameBytes);

    xmlParserInputBufferPtr buffer = xmlParserInputBufferCreateFd(document.file->get(), XML_CHAR_ENCODING_NONE);
    if (buffer == nullptr) return nullptr;
    static_cast<void>(document.file->release());  // closed with the buffer
    xmlParserInputPtr input = xmlNewIOInputStream(context, buffer, XML_CHAR_ENCODING_NONE);
    if (input == nullptr) xmlFreeParserInputBuffer(buffer);
    return input;
}

}  // namespace

Library::Library() {
    const common::LockGuard lock(mutex);
    if (instances++ == 0) {
        xmlInitParser();
        xmlSetExternalEntityLoader(loadOnlyTheDocument);
    }
}

Library::~Library() {
    const common::LockGuard lock(mutex);
    if (--instances == 0) xmlCleanupParser();
}

DocumentScope::DocumentScope(const std::string& path, common::Descriptor& file) {
    document = {&path, &file, 0, {}};
    xmlSetStructuredErrorFunc(nullptr, recordError);
}

DocumentScope::~DocumentScope() {
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    document = {};
}

const ParseFailure& DocumentScope::failure() { return document.failure; }

}  // namespace zav::xml
