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

PropertyTable::PropertyTable(Catalogue catalogue) : catalogue_(std::move(catalogue)) {
    properties_.reserve(catalogue_.keys().size());
    for (const auto& [key, definition, line] : catalogue_.keys()) {
        const bool isVolatile = isState(key) || definition->isVolatile;
        properties_.push_back({key, definition->defaultValue, definition.get(), isVolatile, Stored::nothing});
    }
}

void PropertyTable::apply(const StoredValues& stored) {
    std::size_t unknown = 0;
    Property* next = properties_.data();
    Property* const end = next + properties_.size();
    for (const auto& [key, value] : stored) {
        // Entries mostly come in the order of the keys, so a search is rarely needed.
        Property* const property = next != end && next->key == key ? next : find(key);
        if (property != nullptr) next = property + 1;
        std::string text(value);
        if (property == nullptr || property->isVolatile) {
            ++unknown;
            // An answer must not exceed the limits of the protocol.
            const bool isListable = text.size() <= propertyprotocol::maxValueBytes &&
                                    isUtf8WithoutNul(std::string(key)) && isUtf8WithoutNul(text);
            if (property == nullptr && isListable) uncatalogued_.push_back({std::string(key), std::move(text)});
            continue;
        }
        const std::string reason = objection(*property->definition, text);
        if (!reason.empty()) {
            property->stored = Stored::invalidValue;
            // The value is not logged: it may be a credential.
            dbg::Debug::warning() << "The stored value of " << key << " " << reason << "; the default is used"
                                  << std::endl;
            continue;
        }
        property->value = std::move(text);
        property->stored = Stored::value;
    }
    std::sort(uncatalogued_.begin(), uncatalogued_.end(),
              [](const UncataloguedValue& left, const UncataloguedValue& right) { return left.key < right.key; });
    if (unknown > 0) {
        dbg::Debug::info() << "Kept stored values whose keys are not in the catalogue: " << unknown << std::endl;
    }
}

// Searches the catalogue, whose keys are one step away.
Property* PropertyTable::find(std::string_view key) {
    const std::vector<CatalogueKey>& keys = catalogue_.keys();
    const auto found =
        std::lower_bound(keys.begin(), keys.end(), key,
                         [](const CatalogueKey& entry, std::string_view wanted) { return entry.key < wanted; });
    return found == keys.end() || found->key != key ? nullptr
                                                    : &properties_[static_cast<std::size_t>(found - keys.begin())];
}

}  // namespace propertyservice
