#include "xml/Tree.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace zav::xml {

namespace {

bool isBlank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

}  // namespace

Tree::Tree() { open_.push_back({nullptr}); }

void Tree::clear() {
    root_ = nullptr;
    elements_ = 0;
    open_.assign(1, {nullptr});
    memory_.release();
    names_.reset();
}

void Tree::begin(Names names) {
    clear();
    names_ = std::move(names);
}

template <typename Item>
Item* Tree::allocate(std::size_t count) {
    static_assert(std::is_trivially_destructible_v<Item>, "nothing is destroyed");
    return static_cast<Item*>(memory_.allocate(count * sizeof(Item), alignof(Item)));
}

const char* Tree::keep(std::string_view text) {
    char* const copy = allocate<char>(text.size() + 1);
    *std::copy(text.begin(), text.end(), copy) = '\0';
    return copy;
}

Tree::Node& Tree::append(Kind kind, const char* name) {
    auto* const node = new (allocate<Node>(1)) Node{name, nullptr, nullptr, nullptr, 0, 0, 0, kind, Content::none};
    Level& level = open_.back();
    if (level.last != nullptr) {
        level.last->next = node;
    } else if (level.element != nullptr) {
        level.element->firstChild = node;
    }
    level.last = node;
    level.endsWithCdata = kind == Kind::cdata;
    mark(Content::some);
    return *node;
}

void Tree::mark(Content content) {
    Node* const element = open_.back().element;
    if (element != nullptr) element->content = std::max(element->content, content);
}

Tree::Attribute* Tree::openElement(const char* name, int line, std::uint32_t attributeCount) {
    Node& element = append(Kind::element, name);
    element.index = elements_++;
    element.line = line;
    auto* const attributes = attributeCount == 0 ? nullptr : allocate<Attribute>(attributeCount);
    element.attributes = attributes;
    element.attributeCount = attributeCount;
    if (root_ == nullptr) root_ = &element;
    open_.push_back({&element});
    return attributes;
}

void Tree::closeElement() { open_.pop_back(); }

// Sections that follow each other are one node, even with text between them.
void Tree::addCdata(std::string_view text) {
    if (!open_.back().endsWithCdata) append(Kind::cdata, nullptr);
    if (!isBlank(text)) mark(Content::text);
}

void Tree::addOther(const char* name) { append(Kind::other, name); }

void Tree::addText(std::string_view text) {
    const Node* const element = open_.back().element;
    if (element == nullptr || element->content != Content::none) return;
    mark(isBlank(text) ? Content::some : Content::text);
}

void Tree::addComment() {
    open_.back().endsWithCdata = false;
    mark(Content::some);
}

}  // namespace zav::xml
