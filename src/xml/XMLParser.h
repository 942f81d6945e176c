// The reader that the service creates, with the format's element and attribute names by number.
#pragma once

#include <string>

#include "xml/XMLReader.h"

namespace zav {

class XMLParser : public XMLReader {
 public:
    XMLParser() = default;
    ~XMLParser() override = default;
};

/// The name with that number, empty for a number that has none. Number 2 has none.
const std::string& formatName(unsigned number);

}  // namespace zav
