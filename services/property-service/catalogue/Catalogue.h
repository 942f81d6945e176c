// The phone's keys and their definitions: read from a JSON file at the start, checked as a whole, immutable afterwards.
// docs/catalogue.md describes the file's format.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/KeyPattern.h"
#include "catalogue/ValueRule.h"
#include "common/TextBlocks.h"

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

/// Points into the Catalogue that has it, or copies of it.
struct CatalogueKey {
    std::string_view key;
    std::shared_ptr<const Definition> definition;
    int line = 0;
};

/// The definitions of a file, each of them checked. A pattern has one for all its keys.
class Definitions {
 public:
    /// Throws CatalogueException if the file cannot be read or a definition is invalid.
    static Definitions load(const std::string& path);

    /// The same for a text; errors begin with `name`.
    static Definitions parse(const std::string& text, const std::string& name);

 private:
    friend class Catalogue;
    struct Defined {
        KeyPattern pattern;
        std::shared_ptr<const Definition> definition;
        int line;
    };

    std::string name_;
    std::vector<Defined> all_;  // sorted by the texts of the patterns
};

class Catalogue {
 public:
    /// Expands the patterns. Throws CatalogueException if a key is defined twice.
    explicit Catalogue(const Definitions& definitions);

    /// Throws CatalogueException if the file cannot be read or is invalid.
    static Catalogue load(const std::string& path) { return Catalogue(Definitions::load(path)); }

    /// The same for a text; errors begin with `name`.
    static Catalogue parse(const std::string& text, const std::string& name) {
        return Catalogue(Definitions::parse(text, name));
    }

    /// All keys, with patterns expanded, sorted byte by byte; at most 1,000,000.
    const std::vector<CatalogueKey>& keys() const { return keys_; }

 private:
    std::shared_ptr<common::TextBlocks> texts_;  // of the keys
    std::vector<CatalogueKey> keys_;
};

/// Whether the text is a valid key: non-empty segments of [A-Za-z0-9_-], separated by dots, at most 255 bytes.
bool isKey(std::string_view text);

/// Whether the key begins with "State.": these are volatile.
bool isState(std::string_view key);

}  // namespace propertyservice
