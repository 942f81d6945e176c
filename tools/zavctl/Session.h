// One command's connection to the phone.
#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Environment.h"

namespace zavctl {

inline constexpr char clientName[] = "zavctl";
/// Where the property service keeps its presence, "online" or "offline", retained.
inline constexpr char statusTopic[] = "prop-service/status";

/// A property that has just been written.
struct Change {
    std::string param;
    std::string value;
    std::string source;
};

/// Reads a change message; false when it is none.
bool readChange(const std::string& payload, Change& change);

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
    propertyapi::IPropertyApi& properties() { return *properties_; }

    /// Asks the property service what the property client has no words for: "describe", "import". Throws what the
    /// answer's error stands for as a Failure.
    Json::Value ask(const std::string& operation, const Json::Value& request);

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
