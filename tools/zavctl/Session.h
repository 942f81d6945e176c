// One command's connection to the phone.
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Environment.h"

namespace zavctl {

inline constexpr char clientName[] = "zavctl";
/// Ends the connection when it goes out of scope; no callback runs from then on.
class Session {
 public:
    Session(const Environment& environment, std::string host);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    /// Before `connect`; the callback must outlive the session.
    void subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback);
    void connect();
    /// From now on no request takes longer.
    void limitRequests(std::chrono::milliseconds limit) { bus_->limitRequests(limit); }
    propertyapi::IPropertyApi& properties() { return *properties_; }

    /// Sends a request that the property client does not know: describe, import. Throws a Failure for an error answer.
    Json::Value ask(const std::string& topic, const Json::Value& request);

    /// All properties that begin with the prefix, every page of them, sorted by key.
    std::vector<propertyapi::Property> list(const std::string& prefix);
    /// The same; a prefix with which no key begins is a Failure.
    std::vector<propertyapi::Property> listSome(const std::string& prefix);
    /// What the store holds for keys that the catalogue does not have (any more), sorted by key.
    std::vector<propertyapi::Property> listUncatalogued();

 private:
    const std::string host_;
    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zavctl
