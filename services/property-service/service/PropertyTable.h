// Every property of the phone with its present value, in memory. Reading never touches the store. Used by one thread.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "catalogue/Catalogue.h"
#include "store/IStore.h"

namespace propertyservice {

/// What the store holds of a property.
enum class Stored {
    nothing,
    value,       // its value
    otherValue,  // one that the catalogue no longer allows
};

struct Property {
    std::string key;
    std::string value;
    std::shared_ptr<const Definition> definition;
    std::string changeTopic;  // "prop-service-GROUP/KEY"
    bool isVolatile;          // never stored, at its default after every start
    Stored stored;
};

/// What the store holds for a key that the catalogue does not have.
struct UncataloguedValue {
    std::string key;
    std::string value;
};

class PropertyTable {
 public:
    /// Starts from the catalogue's defaults and takes over the stored values. A stored value that the catalogue no
    /// longer allows gives way to the default, with a warning; one of an unknown key is left alone in the store.
    PropertyTable(const Catalogue& catalogue, const std::vector<IStore::Entry>& stored);

    /// Null for a key that the catalogue does not know.
    Property* find(const std::string& key);

    /// All properties, sorted by key byte by byte.
    const std::vector<Property>& all() const { return properties_; }

    /// Stored values that the constructor left alone for want of a key, sorted likewise.
    const std::vector<UncataloguedValue>& uncatalogued() const { return uncatalogued_; }

 private:
    std::vector<Property> properties_;
    std::unordered_map<std::string, std::size_t> indices_;
    std::vector<UncataloguedValue> uncatalogued_;
};

}  // namespace propertyservice
