#include "ipc/IPCFactory.h"

#include <utility>

#include "Client.h"
#include "Service.h"

namespace ipc {

std::shared_ptr<IIPCClient> IPCFactory::createInstanceShared(const std::string& clientName, const std::string& host,
                                                             bool transient) {
    return std::make_shared<Client>(clientName, host, transient);
}

std::unique_ptr<IIPCService> IPCFactory::createService(const std::string& clientName, ServiceEvents events) {
    return std::make_unique<Service>(clientName, std::move(events));
}

}  // namespace ipc
