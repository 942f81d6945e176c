// A property client that keeps all promises but one: see BrokenBus.h.
#pragma once

#include <memory>
#include <string>

#include "propertyapi/PropertyApiBuilder.h"

namespace broken {

std::shared_ptr<propertyapi::IPropertyApi> createProperties(std::shared_ptr<ipc::IIPCClient> bus,
                                                            const std::string& name);

}  // namespace broken
