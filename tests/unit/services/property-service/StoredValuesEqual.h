// Comparison of what a store has loaded with entries, for matchers.
#pragma once

#include <ostream>
#include <vector>

#include "store/IStore.h"

namespace propertyservice {

inline bool operator==(const StoredValue& value, const IStore::Entry& entry) {
    return value.key == entry.first && entry.second && value.value == *entry.second;
}

inline void PrintTo(const StoredValue& value, std::ostream* out) { *out << value.key << " = " << value.value; }

inline std::vector<IStore::Entry> entriesOf(const StoredValues& values) {
    std::vector<IStore::Entry> entries;
    for (const auto& [key, value] : values) entries.emplace_back(key, value);
    return entries;
}

}  // namespace propertyservice
