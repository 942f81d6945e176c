#include "service/PropertyTable.h"

#include <algorithm>

#include "debug/Debug.h"
#include "propertyprotocol/Limits.h"
#include "propertyprotocol/Topics.h"
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

PropertyTable::PropertyTable(const Catalogue& catalogue, const std::vector<IStore::Entry>& stored) {
    properties_.reserve(catalogue.keys().size());
    for (const CatalogueKey& entry : catalogue.keys()) {
        properties_.push_back({entry.key, entry.definition->defaultValue, entry.definition,
                               propertyprotocol::changeTopic(entry.key),
                               isState(entry.key) || entry.definition->isVolatile, Stored::nothing});
    }
    std::size_t unknown = 0;
    for (const auto& [key, value] : stored) {
        Property* const property = find(key);
        if (property == nullptr || property->isVolatile || !value) {
            ++unknown;
            // An answer must not exceed the limits of the protocol.
            const bool isListable = value && value->size() <= propertyprotocol::maxValueBytes &&
                                    isUtf8WithoutNul(key) && isUtf8WithoutNul(*value);
            if (property == nullptr && isListable) uncatalogued_.push_back({key, *value});
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
        property->value = *value;
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
