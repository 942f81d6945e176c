// A store in memory that can be full or damaged, refuse one key, or run out of memory.
#pragma once

#include <map>
#include <new>
#include <string>
#include <vector>

#include "store/IStore.h"

namespace propertyservice {

class FakeStore final : public IStore {
 public:
    StoredValues load() override {
        StoredValues loaded;
        for (const auto& [key, value] : values) loaded.add(key, value);
        return loaded;
    }

    void write(const std::vector<Entry>& entries) override {
        ++transactions;
        if (outOfMemory) throw std::bad_alloc();
        if (damaged) throw DamagedStore("damaged");
        if (full) throw StoreException("disk full");
        for (const Entry& entry : entries) {
            if (entry.first == failingKey) throw StoreException("no room for " + entry.first);
        }
        for (const auto& [key, value] : entries) {
            if (value) {
                values[key] = *value;
            } else {
                values.erase(key);
            }
        }
    }

    void rebuild(const std::vector<Entry>& entries) override {
        damaged = false;
        ++rebuilds;
        write(entries);
    }

    std::map<std::string, std::string> values;
    bool damaged = false;
    int transactions = 0;
    int rebuilds = 0;
    bool full = false;
    bool outOfMemory = false;
    std::string failingKey;
};

}  // namespace propertyservice
