// The property client over a bus client.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

class PropertyApi final : public IPropertyApi {
 public:
    PropertyApi(std::shared_ptr<ipc::IIPCClient> bus, std::string clientName);

    std::string get(const std::string& key) override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, const std::string& source, const std::string& value) override;
    PropertyPage list(const std::string& prefix, const std::string& after) override;

 private:
    using Deadline = std::chrono::steady_clock::time_point;

    std::string ask(const char* topic, const std::string& key, const std::string& payload, Deadline deadline);
    std::string request(const char* topic, const std::string& key, const std::string& payload, Deadline deadline);

    const std::shared_ptr<ipc::IIPCClient> bus_;
    const std::string clientName_;
};

}  // namespace propertyapi
