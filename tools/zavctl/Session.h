// A command's connection to the phone.
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

/// The destructor disconnects; no callback runs after it.
class Session {
 public:
    Session(const Environment& environment, std::string host);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    /// Call it before `connect`; the callback must outlive the session.
    void subscribe(const std::string& topicFilter, ipc::IIPCCallback& callback);
    void connect();
    /// From now on no request takes longer.
    void limitRequests(std::chrono::milliseconds limit) { bus_->limitRequests(limit); }
    propertyapi::IPropertyApi& properties() { return *properties_; }

    /// Sends a request that the property client does not offer: describe, import. Throws a Failure for an error answer.
    Json::Value request(const std::string& topic, const Json::Value& content);

    /// All properties whose keys begin with the prefix, from all pages, sorted by key.
    std::vector<propertyapi::Property> list(const std::string& prefix);
    /// The same; throws a Failure if no key begins with the prefix.
    std::vector<propertyapi::Property> listOrFail(const std::string& prefix);
    /// Stored values whose keys are not in the catalogue, sorted by key.
    std::vector<propertyapi::Property> listUncatalogued();

 private:
    const std::string host_;
    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zavctl
