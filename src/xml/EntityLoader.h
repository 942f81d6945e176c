// What libxml2 may open: the document that this thread is loading, and nothing else. Included by the sources of xml/ only.
#pragma once

#include <libxml/parser.h>

#include <string>

namespace zav::xml {

/// libxml2's external-entity loader, through which it opens documents too. It refuses everything but the document
/// of the DocumentScope alive on the calling thread, and makes that document fail when it declares entities or
/// default attributes: both multiply a small file into gigabytes while it is parsed.
xmlParserInputPtr loadOnlyTheDocument(const char* url, const char* id, xmlParserCtxtPtr context);

/// While it lives, `path` is the one file that libxml2 may open on this thread, and libxml2 prints nothing.
class DocumentScope {
 public:
    explicit DocumentScope(const std::string& path);
    ~DocumentScope();
    DocumentScope(const DocumentScope&) = delete;
    DocumentScope& operator=(const DocumentScope&) = delete;
};

}  // namespace zav::xml
