// What libxml2 may open: the document that this thread is loading, and nothing else. For the sources of xml/ only.
#pragma once

#include <string>

struct _xmlParserCtxt;
struct _xmlParserInput;

namespace zav::xml {

/// libxml2's external-entity loader, through which it opens documents too. It refuses everything but the document
/// of the DocumentScope alive on the calling thread. That document is read from the scope's descriptor, byte by byte
/// as it is (libxml2 opening the name would inflate gzip, xz and lzma files), and is made to fail when it declares
/// entities or default attributes, which multiply a small file into gigabytes while it is parsed, or has more than
/// maximumNodes nodes, 64 attributes in an element or some ten thousand different names.
_xmlParserInput* loadOnlyTheDocument(const char* url, const char* id, _xmlParserCtxt* context);

/// Elements, attributes, comments and the like together: 250,000 items of four attributes.
constexpr unsigned maximumNodes = 1250000;

/// While it lives, `file` is the one that libxml2 may read on this thread, by the name `path`, and libxml2 prints
/// nothing.
class DocumentScope {
 public:
    /// Takes the descriptor over.
    DocumentScope(const std::string& path, int file);
    ~DocumentScope();
    DocumentScope(const DocumentScope&) = delete;
    DocumentScope& operator=(const DocumentScope&) = delete;
};

}  // namespace zav::xml
