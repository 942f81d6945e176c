// A cursor over one XML document: load a file, step through elements, read names and attributes.
//
// `load` first; on success the cursor stands on the root. Descend with hasChildren, savePosition, firstChild; walk with
// nextSibling; come back with restorePosition. Without a current element every query answers "nothing". One reader is
// used by one thread. Only allocation failures throw.
#pragma once

#include <map>
#include <stack>
#include <string>

#include "xml/Library.h"

struct _xmlDoc;
struct _xmlNode;

namespace zav {

class XMLReader {
 public:
    /// The largest file that is read, in bytes.
    static constexpr long maximumFileSize = 16L * 1024 * 1024;

    XMLReader() = default;
    virtual ~XMLReader();
    XMLReader(const XMLReader&) = delete;
    XMLReader& operator=(const XMLReader&) = delete;

    /// Replaces the document with the file's. False, and no document, when it is not well-formed XML, declares
    /// entities or attribute lists, has too many nodes, or is not a regular file of at most maximumFileSize. A
    /// compressed file is not inflated, and so not well-formed. Blocks for the disk.
    virtual bool load(const std::string& path);

    /// Frees the document; the reader is then as if none had been loaded.
    void release();

    /// Back to the root, or to nothing without a document; forgets the saved positions.
    virtual void reset();

    /// Moves on, passing over text and comments; false when nothing is left there.
    virtual bool nextSibling();
    virtual bool firstChild();

    virtual std::string name();

    /// Attribute names and values of the current element; of a repeated name the first.
    virtual std::map<std::string, std::string> attributes();

    /// Whether the current element holds anything, be it only white space.
    virtual bool hasChildren();

    virtual void savePosition();

    /// Back to the position saved last, which stays saved; to nothing when none is.
    virtual void restorePosition();

 private:
    void skipTextAndComments();

    const xml::Library library_;
    _xmlDoc* document_ = nullptr;  // owned
    _xmlNode* current_ = nullptr;
    std::stack<_xmlNode*> savedPositions_;
};

}  // namespace zav
