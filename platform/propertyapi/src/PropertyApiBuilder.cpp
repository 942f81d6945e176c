#include "propertyapi/PropertyApiBuilder.h"

#include <utility>

#include "PropertyApi.h"

namespace propertyapi {

std::shared_ptr<IPropertyApi> PropertyApiBuilder::getPropertyApi(std::shared_ptr<ipc::IIPCClient> bus,
                                                                 const std::string& clientName) {
    return std::make_shared<PropertyApi>(std::move(bus), clientName);
}

}  // namespace propertyapi
