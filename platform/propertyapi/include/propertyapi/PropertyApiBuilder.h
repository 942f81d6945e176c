// Makes the property client that talks over a given bus client.
#pragma once

#include <memory>
#include <string>

#include "ipc/IIPCClient.h"
#include "propertyapi/IPropertyApi.h"

namespace propertyapi {

class PropertyApiBuilder {
 public:
    /// To be called before the bus client connects. `clientName` is the source of writes that name none.
    static std::shared_ptr<IPropertyApi> getPropertyApi(std::shared_ptr<ipc::IIPCClient> bus,
                                                        const std::string& clientName);
};

}  // namespace propertyapi
