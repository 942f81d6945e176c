// Creates the property client over a given bus client.
#pragma once

#include <memory>
#include <string>

#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

class PropertyApiBuilder {
 public:
    /// Call it before the bus client connects. `clientName` is the default source of writes.
    static std::shared_ptr<IPropertyApi> getPropertyApi(std::shared_ptr<ipc::IIPCClient> bus,
                                                        const std::string& clientName);
};

}  // namespace propertyapi
