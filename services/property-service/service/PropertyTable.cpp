#include "service/PropertyTable.h"

#include <algorithm>
#include <utility>

#include "debug/Debug.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Utf8.h"

namespace propertyservice {

namespace {

using propertyprotocol::isUtf8WithoutNul;

std::string objection(const Definition& definition, const std::string& value) {
    if (value.size() > propertyprotocol::maxValueBytes) return "is too long";
    if (!isUtf8WithoutNul(value)) return "is not UTF-8 text";
    return definition.rule(value);
}

}  // namespace

PropertyTable::PropertyTable(Catalogue catalogue, std::vector<IStore::Entry>&& stored) {
    std::vector<CatalogueKey> keys = std::move(catalogue).keys();
    properties_.reserve(keys.size());
    for (CatalogueKey& entry : keys) {
        const bool isVolatile = isState(entry.key) || entry.definition->isVolatile;
        properties_.push_back({std::move(entry.key), entry.definition->defaultValue, std::move(entry.definition),
                               isVolatile, Stored::nothing});
    }
    std::size_t unknown = 0;
    Property* next = properties_.data();
    Property* const end = next + properties_.size();
    for (auto& [key, value] : stored) {
        // Entries mostly come in the order of the keys, so a search is rarely needed.
        Property* const property = next != end && next->key == key ? next : find(key);
        if (property != nullptr) next = property + 1;
        if (property == nullptr || property->isVolatile || !value) {
            ++unknown;
            // An answer must not exceed the limits of the protocol.
            const bool isListable = value && value->size() <= propertyprotocol::maxValueBytes &&
                                    isUtf8WithoutNul(key) && isUtf8WithoutNul(*value);
            if (property == nullptr && isListable) uncatalogued_.push_back({std::move(key), std::move(*value)});
            continue;
        }
        const std::string reason = objection(*property->definition, *value);
        if (!reason.empty()) {
            property->stored = Stored::invalidValue;
            // The value is not logged: it may be a credential.
            dbg::Debug::warning() << "The stored value of " << key << " " << reason << "; the default is used"
                                  << std::endl;
            continue;
        }
        property->value = std::move(*value);
        property->stored = Stored::value;
    }
    std::sort(uncatalogued_.begin(), uncatalogued_.end(),
              [](const UncataloguedValue& left, const UncataloguedValue& right) { return left.key < right.key; });
    if (unknown > 0) {
        dbg::Debug::info() << "Kept stored values whose keys are not in the catalogue: " << unknown << std::endl;
    }
}

Property* PropertyTable::find(const std::string& key) {
    const auto found =
        std::lower_bound(properties_.begin(), properties_.end(), key,
                         [](const Property& property, const std::string& wanted) { return property.key < wanted; });
    return found == properties_.end() || found->key != key ? nullptr : &*found;
}

}  // namespace propertyservice
