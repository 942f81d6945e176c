// Which keys the phone has: read once from a JSON file when the service starts, checked as a whole, unchanged from then
// on. The file's format is described in docs/catalogue.md.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "catalogue/ValueRule.h"

namespace propertyservice {

/// What is wrong with a catalogue: "FILE:LINE: KEY: reason".
class CatalogueException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// One definition of the file; all keys of an index pattern share it.
struct Definition {
    std::string type;
    std::string limits;  // as JSON members: "\"min\":1,\"max\":9"; empty: none
    std::string defaultValue;
    std::string description;
    bool readOnly = false;
    bool isVolatile = false;                  // beside "State.*", which always is
    std::vector<std::string> refusedSources;  // who may not write it; with readOnly nobody may
    std::shared_ptr<const ValueRule> rule;

    bool refuses(const std::string& source) const;

    /// The service's log and lists for people show *** in the place of its values. Requests and changes carry them.
    bool isSecret() const { return type == "secret"; }
};

struct CatalogueKey {
    std::string key;
    std::shared_ptr<const Definition> definition;
    int line = 0;
};

class Catalogue {
 public:
    /// Throws CatalogueException when the file cannot be read or anything in it is wrong.
    static Catalogue load(const std::string& path);

    /// The same from text; `name` stands in the errors.
    static Catalogue parse(const std::string& text, const std::string& name);

    /// All keys, index patterns written out, sorted byte by byte.
    const std::vector<CatalogueKey>& keys() const { return keys_; }

 private:
    std::vector<CatalogueKey> keys_;
};

/// Keys hold [A-Za-z0-9._-] only, 255 bytes at most, in segments between dots of which none is empty.
bool isKey(const std::string& text);

/// Keys below "State." are at their default after every start of the service.
bool isState(const std::string& key);

}  // namespace propertyservice
