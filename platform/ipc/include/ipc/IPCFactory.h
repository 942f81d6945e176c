// Creates bus clients and bus services.
#pragma once

#include <memory>
#include <string>

#include "ipc/IIPCClient.h"
#include "ipc/IIPCService.h"

namespace ipc {

class IPCFactory {
 public:
    /// A new client, not yet connected. `clientName` is its name on the bus, `host` the default for `connect("")`. A
    /// `transient` client (a command-line tool) adds a random suffix to its name and leaves no session behind. Any
    /// other client keeps its session for an hour after a connection loss, so that messages sent meanwhile still
    /// arrive.
    static std::shared_ptr<IIPCClient> createInstanceShared(const std::string& clientName, const std::string& host,
                                                            bool transient);

    /// A new bus service, not yet started: see IIPCService.
    static std::unique_ptr<IIPCService> createService(const std::string& clientName, ServiceEvents events = {});
};

}  // namespace ipc
