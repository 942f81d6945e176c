// All properties with their current values, in memory. Reading never accesses the store. Used by one thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "catalogue/Catalogue.h"
#include "store/IStore.h"

namespace propertyservice {

/// What the store holds of a property.
enum class Stored {
    nothing,
    value,         // its current value
    invalidValue,  // a value that the catalogue no longer allows
};

struct Property {
    std::string key;
    std::string value;
    std::shared_ptr<const Definition> definition;
    bool isVolatile;  // never stored, reset to its default at every start
    Stored stored;
};

/// A stored value whose key is not in the catalogue.
struct UncataloguedValue {
    std::string key;
    std::string value;
};

class PropertyTable {
 public:
    /// Starts with the catalogue's defaults and applies the stored values. If the catalogue no longer allows a stored
    /// value, the default is used, with a warning. Values of unknown keys stay in the store.
    PropertyTable(Catalogue catalogue, std::vector<IStore::Entry>&& stored);

    /// Null if the catalogue does not have the key.
    Property* find(const std::string& key);

    /// All properties, sorted by key byte by byte.
    const std::vector<Property>& all() const { return properties_; }

    /// Stored values whose keys are not in the catalogue, sorted by key byte by byte.
    const std::vector<UncataloguedValue>& uncatalogued() const { return uncatalogued_; }

 private:
    std::vector<Property> properties_;
    std::vector<UncataloguedValue> uncatalogued_;
};

}  // namespace propertyservice
