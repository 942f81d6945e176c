// A cursor over one XML document. A successful `load` places it on the root; descend with hasChildren, savePosition and
// firstChild, advance with nextSibling, return with restorePosition. Without a current element queries return empty
// values. Throws only on lack of memory.
//
// Threads: one reader is used by one thread.
#pragma once

#include <map>
#include <stack>
#include <string>

#include "xml/Library.h"
#include "xml/Tree.h"

struct _xmlDoc;

namespace zav {

class XMLReader {
 public:
    /// Larger files are refused. Bytes.
    static constexpr long maximumFileSize = 16L * 1024 * 1024;

    virtual ~XMLReader();

    /// Loads a document, replacing the current one. Returns false, with no document loaded, if the file is not a
    /// regular file of at most maximumFileSize, is not well-formed XML, declares entities or attribute lists, or has
    /// too many nodes. Compressed files are not inflated. Blocks for disk reads.
    virtual bool load(const std::string& path);

    /// Why the last load failed.
    const xml::ParseFailure& failure() const { return failure_; }

    /// Frees the document.
    void release();

    /// Returns to the root and clears the saved positions.
    virtual void reset();

    /// Move to the next sibling or first child, skipping text and comments. False, with no current element, if there is
    /// none.
    virtual bool nextSibling();
    virtual bool firstChild();

    virtual std::string name();

    /// Attributes of the current element; the first one of a repeated local name.
    virtual std::map<std::string, std::string> attributes();

    /// Whether the current element has any content, even just white space.
    virtual bool hasChildren();

    virtual void savePosition();

    /// Returns to the position saved last, without removing it; to no element if none was saved.
    virtual void restorePosition();

 protected:
    /// load, for a file that is already open; `name` only names it.
    bool load(const std::string& name, common::Descriptor file);

    /// The encoding as declared or detected; "" if it is neither.
    std::string encoding() const;

    const xml::Tree& tree() const { return tree_; }
    const xml::Tree::Node* current() const { return current_; }
    /// The first one of a repeated local name.
    static std::map<std::string, std::string> attributesOf(const xml::Tree::Node& node);

 private:
    const xml::Library library_;
    xml::Tree tree_;
    _xmlDoc* document_ = nullptr;  // owned; without nodes, which are in tree_
    const xml::Tree::Node* current_ = nullptr;
    std::stack<const xml::Tree::Node*> savedPositions_;
    xml::ParseFailure failure_;
};

}  // namespace zav
