// Persistent storage of values. Used by one thread at a time.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "store/StoredValues.h"

namespace propertyservice {

/// The store cannot be opened, or refused a write; `what()` is the reason.
class StoreException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// The stored data is corrupt. `IStore::rebuild` replaces it.
class DamagedStore : public StoreException {
 public:
    using StoreException::StoreException;
};

class IStore {
 public:
    /// Key and value; without a value, the key is deleted.
    using Entry = std::pair<std::string, std::optional<std::string>>;

    virtual ~IStore() = default;

    /// All stored values, in no particular order.
    virtual StoredValues load() = 0;

    /// Stores all entries in this order, or none of them. After it returns they survive a crash of the process. If it
    /// throws StoreException, the old values stay and a later write may succeed.
    virtual void write(const std::vector<Entry>& entries) = 0;

    /// Call it after `write` has thrown DamagedStore: moves the damaged store aside and creates a new one with the
    /// entries. Throws as `write` does; call it again before the next write then.
    virtual void rebuild(const std::vector<Entry>& entries) = 0;
};

}  // namespace propertyservice
