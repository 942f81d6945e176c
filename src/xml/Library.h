// libxml2: its initialisation, and its restriction to the one document that a thread is loading.
#pragma once

#include <string>

#include "common/Descriptor.h"

namespace zav::xml {

/// Initialises libxml2 for the process, and cleans it up when the last Library is destroyed. main holds one Library,
/// and so does every XMLReader. Threads: any.
class Library {
 public:
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

/// While it exists, libxml2 may read only `file` on this thread, under the name `path`, and prints no errors. Both must
/// outlive it; libxml2 takes the descriptor over when it opens the document. Parsing fails if the document declares
/// entities or attribute lists, which can expand a small file to gigabytes, or has more than 1,250,000 nodes (enough
/// for 250,000 items with four attributes), 64 attributes in an element, or 64 KiB of distinct names.
class DocumentScope {
 public:
    DocumentScope(const std::string& path, common::Descriptor& file);
    ~DocumentScope();
    DocumentScope(const DocumentScope&) = delete;
    DocumentScope& operator=(const DocumentScope&) = delete;
};

}  // namespace zav::xml
