// Keys and values of a store.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "common/TextBlocks.h"

namespace propertyservice {

/// Points into the StoredValues that has it.
struct StoredValue {
    std::string_view key;
    std::string_view value;
};

class StoredValues {
 public:
    using value_type = StoredValue;
    using const_iterator = std::vector<StoredValue>::const_iterator;

    void reserve(std::size_t count) { values_.reserve(count); }
    void add(std::string_view key, std::string_view value) {
        values_.push_back({texts_.copy(key), texts_.copy(value)});
    }

    const_iterator begin() const { return values_.begin(); }
    const_iterator end() const { return values_.end(); }
    std::size_t size() const { return values_.size(); }
    bool empty() const { return values_.empty(); }

 private:
    std::vector<StoredValue> values_;
    common::TextBlocks texts_;
};

}  // namespace propertyservice
