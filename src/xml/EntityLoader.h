// Restricts libxml2 to the document that the calling thread is loading. Internal to xml/.
#pragma once

#include <string>

#include "common/Descriptor.h"

struct _xmlParserCtxt;
struct _xmlParserInput;

namespace zav::xml {

/// libxml2's external-entity loader, which also opens the document itself. Refuses everything except the document of
/// the calling thread's DocumentScope, which it reads from the scope's descriptor (given a name, libxml2 would inflate
/// gzip, xz and lzma files). Parsing fails if the document declares entities or attribute lists, which can expand a
/// small file to gigabytes, or has more than maximumNodes nodes, 64 attributes in an element, or 64 KiB of distinct
/// names.
_xmlParserInput* loadOnlyTheDocument(const char* url, const char* id, _xmlParserCtxt* context);

/// Elements, attributes, comments and similar together. Enough for 250,000 items with four attributes.
constexpr unsigned maximumNodes = 1250000;

/// While it exists, libxml2 may read only `file` on this thread, under the name `path`, and prints no errors. Both must
/// outlive it; libxml2 takes the descriptor over when it opens the document.
class DocumentScope {
 public:
    DocumentScope(const std::string& path, common::Descriptor& file);
    ~DocumentScope();
    DocumentScope(const DocumentScope&) = delete;
    DocumentScope& operator=(const DocumentScope&) = delete;
};

}  // namespace zav::xml
