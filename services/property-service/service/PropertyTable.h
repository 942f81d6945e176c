// All properties with their current values, in memory. Reading never accesses the store. Used by one thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "catalogue/Catalogue.h"
#include "store/StoredValues.h"

namespace propertyservice {

/// What the store holds of a property.
enum class Stored {
    nothing,
    value,         // its current value
    invalidValue,  // a value that the catalogue no longer allows
};

struct Property {
    std::string_view key;  // the catalogue's
    std::string value;
    const Definition* definition;  // the catalogue's
    bool isVolatile;               // never stored, reset to its default at every start
    Stored stored;
};

/// A stored value whose key is not in the catalogue.
struct UncataloguedValue {
    std::string key;
    std::string value;
};

class PropertyTable {
 public:
    /// All properties have the catalogue's defaults.
    explicit PropertyTable(Catalogue catalogue);
    PropertyTable(const PropertyTable&) = delete;
    PropertyTable& operator=(const PropertyTable&) = delete;
    PropertyTable(PropertyTable&&) = default;
    PropertyTable& operator=(PropertyTable&&) = delete;
    ~PropertyTable() = default;

    /// Applies the stored values, once. If the catalogue no longer allows one, the default is used, with a warning.
    /// Values of unknown keys stay in the store.
    void apply(const StoredValues& stored);

    /// Null if the catalogue does not have the key.
    Property* find(std::string_view key);

    /// All properties, sorted by key byte by byte.
    const std::vector<Property>& all() const { return properties_; }

    /// Stored values whose keys are not in the catalogue, sorted by key byte by byte.
    const std::vector<UncataloguedValue>& uncatalogued() const { return uncatalogued_; }

 private:
    Catalogue catalogue_;
    std::vector<Property> properties_;  // in the order of the catalogue's keys
    std::vector<UncataloguedValue> uncatalogued_;
};

}  // namespace propertyservice
