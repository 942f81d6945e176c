// The reader that the daemon uses for provisioning files.
#pragma once

#include "xml/XMLReader.h"

namespace zav {

class XMLParser : public XMLReader {
 public:
    XMLParser() = default;
    ~XMLParser() override = default;
};

}  // namespace zav
