// A parsed document: what a cursor over it can see. Elements with their attributes, CDATA sections, processing
// instructions and references to unknown entities are nodes; text and comments only leave a mark on their element.
//
// Memory is taken in large blocks and freed as a whole; it amounts to about twice the size of the file, a fifth of
// libxml2's own nodes. Names are not copied, but those of libxml2's dictionary, which the tree keeps. Building throws
// std::bad_alloc. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <string_view>
#include <vector>

struct _xmlDict;

namespace zav::xml {

class Tree {
 public:
    /// The dictionary and what frees it.
    using Names = std::unique_ptr<_xmlDict, void (*)(_xmlDict*)>;

    struct Attribute {
        const char* name;
        const char* value;
    };

    enum class Kind : std::uint8_t { element, cdata, other };

    /// What stands inside an element: nothing; something; text or CDATA that is more than white space. Of text only
    /// the first part counts, and only if nothing stands before it.
    enum class Content : std::uint8_t { none, some, text };

    struct Node {
        const char* name;  // null for CDATA
        const Node* next;
        const Node* firstChild;
        const Attribute* attributes;
        std::uint32_t attributeCount;
        std::uint32_t index;  // of an element: from 0, in document order
        int line;             // of an element: where its start tag ends
        Kind kind;
        Content content;
    };

    Tree();
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    /// Null without a document. What follows the root element is its next node.
    const Node* root() const { return root_; }
    void clear();

    /// Frees what was built before.
    void begin(Names names);

    // In document order: an element is opened, its content added, and closed.

    /// The returned array, to be filled, holds as many attributes.
    Attribute* openElement(const char* name, int line, std::uint32_t attributeCount);
    void closeElement();
    void addCdata(std::string_view text);
    void addOther(const char* name);
    void addText(std::string_view text);
    void addComment();
    bool isInElement() const { return open_.size() > 1; }

    /// A copy that lives as long as the tree.
    const char* keep(std::string_view text);

 private:
    struct Level {
        Node* element;         // null for the document
        Node* last = nullptr;  // of its nodes
        bool endsWithCdata = false;
    };

    template <typename Item>
    Item* allocate(std::size_t count);
    Node& append(Kind kind, const char* name);
    void mark(Content content);

    Names names_{nullptr, [](_xmlDict*) {}};
    std::pmr::monotonic_buffer_resource memory_;
    std::vector<Level> open_;
    const Node* root_ = nullptr;
    std::uint32_t elements_ = 0;
};

}  // namespace zav::xml
