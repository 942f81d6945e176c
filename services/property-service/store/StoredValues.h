// Keys and values of a store, copied into few large blocks: strings of their own would take much of the time that it
// takes to read them.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

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
    void add(std::string_view key, std::string_view value) { values_.push_back({copy(key), copy(value)}); }

    const_iterator begin() const { return values_.begin(); }
    const_iterator end() const { return values_.end(); }
    std::size_t size() const { return values_.size(); }
    bool empty() const { return values_.empty(); }

 private:
    std::string_view copy(std::string_view text);

    std::vector<StoredValue> values_;
    std::vector<std::unique_ptr<char[]>> blocks_;
    char* next_ = nullptr;  // unused bytes of the last block
    std::size_t room_ = 0;
};

}  // namespace propertyservice
