#include "xml/EntityLoader.h"

#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

namespace zav::xml {

namespace {

thread_local const std::string* loadedPath = nullptr;

void swallowError(void*, xmlErrorPtr) {}

// Stopping alone would hand out what was read so far as a document.
void refuse(void* context) {
    const auto parser = static_cast<xmlParserCtxtPtr>(context);
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

void refuseEntity(void* context, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) { refuse(context); }

void refuseUnparsedEntity(void* context, const xmlChar*, const xmlChar*, const xmlChar*, const xmlChar*) {
    refuse(context);
}

void refuseAttributeList(void* context, const xmlChar*, const xmlChar*, int, int, const xmlChar*,
                         xmlEnumerationPtr values) {
    xmlFreeEnumeration(values);
    refuse(context);
}

}  // namespace

xmlParserInputPtr loadOnlyTheDocument(const char* url, const char*, xmlParserCtxtPtr context) {
    if (loadedPath == nullptr || url == nullptr || context == nullptr || *loadedPath != url) return nullptr;
    // Only the document itself gets here, before anything of it is parsed: the place to watch its declarations.
    context->sax->entityDecl = refuseEntity;
    context->sax->unparsedEntityDecl = refuseUnparsedEntity;
    context->sax->attributeDecl = refuseAttributeList;
    return xmlNewInputFromFile(context, url);
}

DocumentScope::DocumentScope(const std::string& path) {
    loadedPath = &path;
    xmlSetStructuredErrorFunc(nullptr, swallowError);
}

DocumentScope::~DocumentScope() {
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    loadedPath = nullptr;
}

}  // namespace zav::xml
