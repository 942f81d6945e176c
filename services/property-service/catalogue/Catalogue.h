// The phone's keys and their definitions: read from a JSON file at the start, checked as a whole, immutable afterwards.
// docs/catalogue.md describes the file's format.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "catalogue/ValueRule.h"

namespace propertyservice {

/// An invalid catalogue: "FILE:LINE: KEY: reason".
class CatalogueException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// One definition; all keys of a pattern share it.
struct Definition {
    std::string type;
    std::string limits;  // as JSON members: "\"min\":1,\"max\":9", or empty
    std::string defaultValue;
    std::string description;
    bool readOnly = false;
    bool isVolatile = false;                  // "State.*" is volatile in any case
    std::vector<std::string> refusedSources;  // sources that may not write it
    ValueRule rule;

    bool refuses(const std::string& source) const;

    /// The service's log and the listings of tools show *** instead of its values; answers and changes carry them.
    bool isSecret() const { return type == "secret"; }
};

struct CatalogueKey {
    std::string key;
    std::shared_ptr<const Definition> definition;
    int line = 0;
};

class Catalogue {
 public:
    /// Throws CatalogueException if the file cannot be read or is invalid.
    static Catalogue load(const std::string& path);

    /// The same for a text; errors begin with `name`.
    static Catalogue parse(const std::string& text, const std::string& name);

    /// All keys, with patterns expanded, sorted byte by byte; at most 1,000,000.
    const std::vector<CatalogueKey>& keys() const { return keys_; }

 private:
    std::vector<CatalogueKey> keys_;
};

/// Whether the text is a valid key: non-empty segments of [A-Za-z0-9_-], separated by dots, at most 255 bytes.
bool isKey(const std::string& text);

/// Whether the key begins with "State.": these are volatile.
bool isState(const std::string& key);

}  // namespace propertyservice
