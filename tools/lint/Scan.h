// Where the elements and attributes of a well-formed document stand in its text. libxml2 knows lines only.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace lint {

/// Offsets into the text.
struct AttributePlace {
    std::size_t name;
    std::size_t nameEnd;
    std::size_t value;  // behind the quote
};

struct ElementPlace {
    std::size_t name;
    std::size_t nameEnd;
    std::size_t firstAttribute;  // in Places::attributes
    std::size_t attributeCount;
};

struct Places {
    std::vector<ElementPlace> elements;  // in document order
    std::vector<AttributePlace> attributes;
    /// Processing instructions and CDATA: the offset, and how many elements begin before it.
    std::vector<std::pair<std::size_t, std::size_t>> foreign;
};

/// For UTF-8 text that libxml2 has found well-formed; of other text it finds what looks like elements.
Places scan(const std::string& text);

}  // namespace lint
