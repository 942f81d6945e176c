// A command's connection to the phone.
#pragma once

#include <json/value.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Environment.h"

namespace zavctl {

inline constexpr char clientName[] = "zavctl";

class Session {
 public:
    /// Topic filters and who is told about them.
    using Subscriptions = std::vector<std::pair<std::string, ipc::IIPCCallback*>>;

    /// Connects to the broker. The callbacks must outlive the session.
    Session(const Environment& environment, const std::string& host, const Subscriptions& subscriptions = {});
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    /// Disconnects; no callback runs after it.
    ~Session();

    /// From now on no request takes longer.
    void limitRequests(std::chrono::milliseconds limit) { bus_->limitRequests(limit); }
    propertyapi::IPropertyApi& properties() { return *properties_; }

    /// Sends a request that the property client does not offer: describe, import. Throws a Failure for an error answer.
    Json::Value request(const std::string& topic, const Json::Value& content);
    /// Repeats the request for each page of the answer; `member` names the array of a page.
    std::vector<Json::Value> requestAll(const std::string& topic, Json::Value content, const char* member);

    /// All properties whose keys begin with the prefix, from all pages, sorted by key.
    std::vector<propertyapi::Property> list(const std::string& prefix);

 private:
    explicit Session(std::shared_ptr<ipc::IIPCClient> bus, const Environment& environment);

    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace zavctl
