// The keys of a phone and what their values may be: those of a catalogue file, or those that a running property service
// describes. Immutable once filled; any thread may read it then.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "catalogue/Catalogue.h"
#include "xml/Library.h"

namespace Json {
class Value;
}

namespace lint {

class Settings {
 public:
    /// The keys of a catalogue file. Throws LintException if it cannot be read or is invalid.
    static std::shared_ptr<const Settings> load(const std::string& path);

    static std::shared_ptr<const Settings> of(const propertyservice::Catalogue& catalogue);

    /// Adds a key as the property service describes it. A definition that this program does not know allows any value.
    void add(const Json::Value& description);

    /// Null if there is no such key.
    const propertyservice::Definition* find(const std::string& key) const;

    /// The key that was probably meant; empty if none is near.
    std::string nearest(const std::string& key) const;

    std::size_t size() const { return definitions_.size(); }

 private:
    // Whoever checks on several threads has Settings: libxml2 is not to be cleaned up while one of them ends.
    const zav::xml::Library library_;
    std::unordered_map<std::string, std::shared_ptr<const propertyservice::Definition>> definitions_;
};

}  // namespace lint
