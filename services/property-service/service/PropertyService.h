// Executes requests and returns the messages to publish. It is independent of the bus and runs on the caller's thread,
// one call at a time.
//
// All sets of a call share one transaction, which is committed before `handle` returns. If the store refuses the
// transaction, each request is retried in one of its own, so that a bad write affects no other request.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ipc/IIPCService.h"
#include "service/Codec.h"
#include "service/PropertyTable.h"
#include "store/IStore.h"

namespace propertyservice {

class PropertyService {
 public:
    /// Loads the stored values into a table of defaults; throws StoreException if that fails. `store` must outlive the
    /// service.
    PropertyService(PropertyTable defaults, IStore& store);
    PropertyService(Catalogue catalogue, IStore& store) : PropertyService(PropertyTable(std::move(catalogue)), store) {}

    /// Returns changes and answers in the order of the requests. A request's changes come before its answer: a service
    /// that is killed while it sends may publish a change without its answer, but never an answer without its change.
    std::vector<ipc::OutgoingMessage> handle(const std::vector<ipc::ServiceRequest>& requests);

 private:
    struct Refusal {
        const char* code;
        std::string reason;
    };
    struct Undo {
        Property* property;
        std::string value;
        Stored stored;
    };
    using Messages = std::vector<ipc::OutgoingMessage>;

    void execute(const ipc::ServiceRequest& request, Messages& messages);
    std::string get(const std::string& payload);
    std::string set(const std::string& payload, Messages& messages);
    std::string list(const std::string& payload);
    std::string describe(const std::string& payload);
    std::string import(const std::string& payload, Messages& messages);
    template <typename Entry, typename Render>
    static std::string page(const char* name, const std::vector<Entry>& all, const ListRequest& request, Render render);
    std::optional<Refusal> checkWrite(const Property* property, const std::string& source,
                                      const std::string* value) const;
    void logRefusal(const Property& property, const std::string& value, const std::string& source,
                    const Refusal& refusal) const;
    void write(Property& property, std::optional<std::string> value, const std::string& source, Messages& messages);
    void commit();
    void rollBack();
    void rebuildStore();
    void executeAlone(const ipc::ServiceRequest& request, Messages& messages);

    IStore& store_;
    PropertyTable table_;

    // The current transaction: entries to store, and the values that `rollBack` restores.
    std::vector<IStore::Entry> writes_;
    std::vector<Undo> undo_;
    bool isRetry_ = false;        // refusals have been logged already
    bool storeFailing_ = false;   // a full disk is logged once, not on every write
    bool rebuildNeeded_ = false;  // the store is damaged: rebuild it before the next write
};

/// For the log, which escapes other control characters: the first `maxCharacters` of a UTF-8 text without C1 control
/// characters, and "..." if it is longer.
std::string excerpt(const std::string& text, std::size_t maxCharacters);

}  // namespace propertyservice
