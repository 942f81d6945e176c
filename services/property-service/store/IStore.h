// Where values outlive the service. Used by one thread at a time.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace propertyservice {

/// The store cannot be used (when it is opened), or refused a write; `what()` says why.
class StoreException : public std::runtime_error {
 public:
    using std::runtime_error::runtime_error;
};

/// What is stored is not what was written. `IStore::rebuild` makes a good store of it.
class DamagedStore : public StoreException {
 public:
    using StoreException::StoreException;
};

class IStore {
 public:
    /// Key and value; no value: the key is stored no longer.
    using Entry = std::pair<std::string, std::optional<std::string>>;

    virtual ~IStore() = default;

    /// Everything that is stored, in no particular order.
    virtual std::vector<Entry> load() = 0;

    /// Stores all entries in this order, or none of them. Once it has returned they survive the end of the process,
    /// however it ends. Throws StoreException; the old values stand then, and a later write may succeed.
    virtual void write(const std::vector<Entry>& entries) = 0;

    /// After `write` has thrown DamagedStore: sets the damaged store aside and begins anew with these. Throws as
    /// `write`; it is to be called again then, before the next write.
    virtual void rebuild(const std::vector<Entry>& entries) = 0;
};

}  // namespace propertyservice
