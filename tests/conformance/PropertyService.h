// The property service under test, started, killed and suspended with the commands from the options, a client of the
// bus that is connected as "conformance", and the property client on it. Each operation returns once it has taken
// effect, and throws std::runtime_error on failure. The bus must exist longer.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Program.h"
#include "ipc/IIPCClient.h"
#include "propertyapi/PropertyApiBuilder.h"

namespace conformance {

struct PropertyLibrary {
    std::function<std::shared_ptr<propertyapi::IPropertyApi>(std::shared_ptr<ipc::IIPCClient> bus,
                                                             const std::string& name)>
        client = propertyapi::PropertyApiBuilder::getPropertyApi;
};

inline PropertyLibrary& propertyLibrary() {
    static PropertyLibrary library;
    return library;
}

class PropertyService {
 public:
    PropertyService();
    PropertyService(const PropertyService&) = delete;
    PropertyService& operator=(const PropertyService&) = delete;
    ~PropertyService();

    propertyapi::IPropertyApi& properties() { return *properties_; }
    ipc::IIPCClient& client() { return *client_; }

    void stop();
    /// Returns once the property client gets answers again.
    void start();
    /// The same without waiting.
    void launch();
    void freeze() const;
    void thaw() const;

    /// Waits until a call under no RecoveryScope fails as offline.
    void awaitOffline();

 private:
    void awaitAnswers();

    Program program_;
    std::shared_ptr<ipc::IIPCClient> client_;
    std::shared_ptr<propertyapi::IPropertyApi> properties_;
};

}  // namespace conformance
