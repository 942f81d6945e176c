// Carries out requests: the handler behind the bus. It knows no bus of its own: requests go in, messages come out, so
// it runs on whichever thread hands the requests over, one at a time.
//
// All sets of one call share one transaction, and no answer leaves before its commit. When the store refuses the
// transaction, each request is tried on its own, so that one bad write costs nobody else's.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ipc/IIPCService.h"
#include "service/Codec.h"
#include "service/PropertyTable.h"
#include "store/IStore.h"

namespace propertyservice {

class PropertyService {
 public:
    /// Reads what `store` holds; throws StoreException if it cannot. `store` must outlive the service.
    PropertyService(const Catalogue& catalogue, IStore& store);

    /// Changes and answers for the requests, in their order. The changes that a request makes come before its answer:
    /// a service that is killed while it sends may leave a change without its answer, but no answer without its change.
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

    void carryOut(const ipc::ServiceRequest& request, Messages& messages);
    std::string get(const std::string& payload);
    std::string set(const std::string& payload, Messages& messages);
    std::string list(const std::string& payload);
    std::string describe(const std::string& payload);
    std::string import(const std::string& payload, Messages& messages);
    template <typename Entry, typename Render>
    static std::string page(const char* name, const std::vector<Entry>& all, const ListRequest& request, Render render);
    std::optional<Refusal> refusalOf(const Property* property, const std::string& source,
                                     const std::string* value) const;
    void logRefusal(const Property& property, const std::string& value, const std::string& source,
                    const Refusal& refusal) const;
    void write(Property& property, std::optional<std::string> value, const std::string& source, Messages& messages);
    void commit();
    void takeBack();
    void rebuildStore();
    void carryOutAlone(const ipc::ServiceRequest& request, Messages& messages);

    IStore& store_;
    PropertyTable table_;
    RequestReader reader_;

    // Of the call in hand: what goes to the store, and how memory returns to what it was.
    std::vector<IStore::Entry> writes_;
    std::vector<Undo> undo_;
    bool isRetry_ = false;        // what is refused is in the log already
    bool storeFailing_ = false;   // so that a full disk is logged once, not with every write
    bool rebuildNeeded_ = false;  // the store is damaged, and must have everything again before it takes a write
};

}  // namespace propertyservice
