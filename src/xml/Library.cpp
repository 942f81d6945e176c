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

struct Document {
    const std::string* path = nullptr;
    common::Descriptor* file = nullptr;  // empty once libxml2 has taken it over
    Tree* tree = nullptr;
    unsigned nodes = 0;
    ParseFailure failure;
    bool outOfMemory = false;
};

namespace {

common::Mutex mutex;
unsigned instances GUARDED_BY(mutex) = 0;

// A pointer: a thread that first uses an object with a destructor needs memory, without which the C library ends the
// process.
thread_local Document* document = nullptr;

ParseFailure::Kind kindOf(const xmlError& error) {
    if (error.code == XML_ERR_NO_MEMORY) return ParseFailure::Kind::names;  // what a full dictionary is reported as
    const bool isEncoding = error.domain == XML_FROM_I18N || error.code == XML_ERR_INVALID_ENCODING ||
                            error.code == XML_ERR_UNKNOWN_ENCODING || error.code == XML_ERR_UNSUPPORTED_ENCODING ||
                            error.code == XML_ERR_INVALID_CHAR;
    return isEncoding ? ParseFailure::Kind::encoding : ParseFailure::Kind::malformed;
}

// Instead of libxml2's output. It goes on behind an error, but only the first one is about the document.
void recordError(void*, xmlErrorPtr error) {
    if (error == nullptr || error->level != XML_ERR_FATAL || document->failure.kind != ParseFailure::Kind::none) return;
    document->failure = {kindOf(*error), "", error->line, error->int2};
    try {
        std::string message = error->message == nullptr ? "" : error->message;
        while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
        document->failure.message = std::move(message);
    } catch (const std::bad_alloc&) {  // must not pass through libxml2
    }
}

void refuse(void* context, ParseFailure::Kind kind) {
    auto* const parser = static_cast<xmlParserCtxtPtr>(context);
    if (document->failure.kind == ParseFailure::Kind::none) {
        document->failure = {kind, "", xmlSAX2GetLineNumber(context), xmlSAX2GetColumnNumber(context)};
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
    document->nodes += nodes;
    if (document->nodes <= maximumNodes) return true;
    refuse(context, ParseFailure::Kind::nodes);
    return false;
}

// Adds to the tree. An exception must not pass through libxml2.
template <typename Add>
void build(void* context, Add add) {
    try {
        add(*document->tree);
    } catch (const std::bad_alloc&) {
        document->outOfMemory = true;
        refuse(context, ParseFailure::Kind::nodes);
    }
}

const char* text(const xmlChar* string) { return reinterpret_cast<const char*>(string); }

// Names are in the dictionary, which the tree keeps. As in libxml2's own nodes a prefix is part of the name only if
// it is not declared.
const char* nameOf(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri) {
    if (prefix == nullptr || uri != nullptr) return text(name);
    const xmlChar* const full = xmlDictQLookup(static_cast<xmlParserCtxtPtr>(context)->dict, prefix, name);
    return text(full == nullptr ? name : full);
}

void startElement(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri, int namespaceCount,
                  const xmlChar** /*namespaces*/, int attributeCount, int /*defaulted*/, const xmlChar** attributes) {
    if (attributeCount > maximumAttributes) {
        refuse(context, ParseFailure::Kind::attributes);
        return;  // `attributes` points into the buffer that refuse() freed
    }
    const auto count = static_cast<unsigned>(attributeCount);
    if (!fits(context, 1 + count + static_cast<unsigned>(namespaceCount))) return;
    build(context, [&](Tree& tree) {
        Tree::Attribute* const kept =
            tree.openElement(nameOf(context, name, prefix, uri), xmlSAX2GetLineNumber(context), count);
        for (unsigned index = 0; index < count; ++index) {
            const xmlChar** const attribute = attributes + std::size_t{5} * index;  // name, prefix, URI, begin, end
            const auto length = static_cast<std::size_t>(attribute[4] - attribute[3]);
            kept[index] = {nameOf(context, attribute[0], attribute[1], attribute[2]),
                           tree.keep({text(attribute[3]), length})};
        }
    });
}

void endElement(void*, const xmlChar*, const xmlChar*, const xmlChar*) { document->tree->closeElement(); }

bool isInDeclarations(void* context) { return static_cast<xmlParserCtxtPtr>(context)->inSubset != 0; }

void comment(void* context, const xmlChar*) {
    if (fits(context, 1) && !isInDeclarations(context)) document->tree->addComment();
}

void instruction(void* context, const xmlChar* target, const xmlChar*) {
    if (!fits(context, 1) || isInDeclarations(context)) return;
    build(context, [&](Tree& tree) { tree.addOther(text(target)); });
}

void cdata(void* context, const xmlChar* content, int length) {
    if (!fits(context, 1)) return;
    build(context, [&](Tree& tree) { tree.addCdata({text(content), static_cast<std::size_t>(length)}); });
}

// Of an entity that may be declared in another file, which is not read.
void reference(void* context, const xmlChar* name) {
    if (!document->tree->isInElement() || !fits(context, 1)) return;
    build(context, [&](Tree& tree) { tree.addOther(text(name)); });
}

void characters(void*, const xmlChar* content, int length) {
    document->tree->addText({text(content), static_cast<std::size_t>(length)});
}

// libxml2's external-entity loader, which also opens the document itself. It reads from a descriptor: given a name,
// libxml2 would inflate gzip, xz and lzma files.
xmlParserInputPtr loadOnlyTheDocument(const char* url, const char*, xmlParserCtxtPtr context) {
    const bool isDocument = document != nullptr && document->file != nullptr && document->file->get() >= 0 &&
                            url != nullptr && context != nullptr && *document->path == url && context->sax != nullptr;
    if (!isDocument) return nullptr;
    // Nothing has been parsed yet, so the handlers see the whole document.
    context->sax->entityDecl = refuseEntity;
    context->sax->unparsedEntityDecl = refuseUnparsedEntity;
    context->sax->attributeDecl = refuseAttributeList;
    context->sax->startElementNs = startElement;
    context->sax->endElementNs = endElement;
    context->sax->comment = comment;
    context->sax->processingInstruction = instruction;
    context->sax->cdataBlock = cdata;
    context->sax->reference = reference;
    context->sax->characters = characters;
    context->sax->ignorableWhitespace = characters;
    context->replaceEntities = 1;  // gives attribute values as they are, with "&" for "&amp;"
    xmlDictSetLimit(context->dict, maximumNameBytes);
    xmlDictReference(context->dict);
    document->tree->begin(Tree::Names(context->dict, xmlDictFree));

    xmlParserInputBufferPtr buffer = xmlParserInputBufferCreateFd(document->file->get(), XML_CHAR_ENCODING_NONE);
    if (buffer == nullptr) return nullptr;
    static_cast<void>(document->file->release());  // closed with the buffer
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

DocumentScope::DocumentScope(const std::string& path, common::Descriptor& file, Tree& tree)
    : document_(std::make_unique<Document>(Document{&path, &file, &tree, 0, {}, false})) {
    document = document_.get();
    xmlSetStructuredErrorFunc(nullptr, recordError);
}

DocumentScope::~DocumentScope() {
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    document = nullptr;
}

const ParseFailure& DocumentScope::failure() { return document->failure; }

bool DocumentScope::outOfMemory() { return document->outOfMemory; }

}  // namespace zav::xml
