// libxml2: its initialisation, and its restriction to the one document that a thread is loading.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "common/Descriptor.h"
#include "xml/Tree.h"

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

/// Why a document could not be parsed: the first error in it.
struct ParseFailure {
    enum class Kind {
        none,
        unreadable,     // not a regular file of acceptable size
        malformed,      // not well-formed; `message` says why
        encoding,       // bytes that are not of its encoding, or an encoding that is not supported
        entities,       // it declares entities
        attributeList,  // it declares attribute lists
        nodes,          // more than maximumNodes
        attributes,     // an element with more than maximumAttributes
        names,          // more than maximumNameBytes
    };
    Kind kind = Kind::none;
    std::string message;  // libxml2's own, for malformed and encoding
    int line = 0;         // from 1
    int column = 0;       // from 1, in bytes of UTF-8; where the error was noticed
};

constexpr unsigned maximumNodes = 1250000;  // elements, attributes, comments and similar together
// libxml2 compares the attributes of an element in pairs: 40,000 of them take 20 s. Limiting the names of the document
// bounds the first such element; the limit on attributes then ends the document.
constexpr int maximumAttributes = 64;
constexpr std::size_t maximumNameBytes = 64U * 1024U;

struct Document;

/// While it exists, libxml2 may read only `file` on this thread, under the name `path`, builds `tree` instead of nodes
/// of its own, and prints no errors. All three must outlive it; libxml2 takes the descriptor over when it opens the
/// document. Parsing fails if the document declares
/// entities or attribute lists, which can expand a small file to gigabytes, or has more than maximumNodes (enough for
/// 250,000 items with four attributes), maximumAttributes in an element, or maximumNameBytes of distinct names.
class DocumentScope {
 public:
    DocumentScope(const std::string& path, common::Descriptor& file, Tree& tree);
    ~DocumentScope();
    DocumentScope(const DocumentScope&) = delete;
    DocumentScope& operator=(const DocumentScope&) = delete;

    /// Why parsing failed. For the thread that created the scope.
    static const ParseFailure& failure();
    /// Whether it failed for lack of memory for the tree.
    static bool outOfMemory();

 private:
    const std::unique_ptr<Document> document_;
};

}  // namespace zav::xml
